#include "plugin_parser_interface.h"

#include <cstring>

#include "PluginHandler.h"
#include "PluginPolicy.h"

extern "C" const char WUP_POLICY_NAME[] = WUP_POLICY_NAME_TEXT;

namespace {

// Walks the package manager's metadata list in order, passing over nodes without an item or a key.
class MetadataItems {
 public:
  explicit MetadataItems(GList* list) : first_(g_list_first(list)) {}

  class Iterator {
   public:
    explicit Iterator(GList* node) : node_(SkipEmpty(node)) {}
    const __metadata_t* operator*() const { return static_cast<const __metadata_t*>(node_->data); }
    Iterator& operator++() {
      node_ = SkipEmpty(node_->next);
      return *this;
    }
    bool operator!=(const Iterator& other) const { return node_ != other.node_; }

   private:
    static GList* SkipEmpty(GList* node) {
      while (node != nullptr &&
             (node->data == nullptr || static_cast<const __metadata_t*>(node->data)->key == nullptr)) {
        node = node->next;
      }
      return node;
    }
    GList* node_;
  };

  Iterator begin() const { return Iterator(first_); }
  Iterator end() const { return Iterator(nullptr); }

 private:
  GList* first_;
};

// Exact match over the whole key: a prefix of it, or the key with anything after it, is another key.
bool IsPluginTypeKey(const char* key) { return std::strcmp(key, strMETADATA_TYPE_KEY.c_str()) == 0; }

}  // namespace

extern "C" int PKGMGR_MDPARSER_PLUGIN_INSTALL(const char* pkgid, const char* appid, GList* metadata) {
  PLUGIN_LOG("METADATA INSTALL");
  const guint length = g_list_length(metadata);
  PLUGIN_LOG("pkgid(%s) appid(%s) list(%d)", pkgid, appid, static_cast<int>(length));
  if (length == 0) {
    PLUGIN_LOG("[ERROR] No Engine Metadata");
    return 0;
  }
  for (const __metadata_t* item : MetadataItems(metadata)) {
    PLUGIN_LOG("key(%s) - value(%s)", item->key, item->value);
    if (IsPluginTypeKey(item->key)) {
      PLUGIN_LOG("create instance");
      CSingleton<PluginHandler>::GetInstance()->HandleSingleTpk(pkgid);
      break;
    }
  }
  PLUGIN_LOG("finish");
  return 0;
}

// An upgrade is an install; the call goes through the exported name like any other caller's.
extern "C" int PKGMGR_MDPARSER_PLUGIN_UPGRADE(const char* pkgid, const char* appid, GList* metadata) {
  PLUGIN_LOG("METADATA UPGRADE");
  PKGMGR_MDPARSER_PLUGIN_INSTALL(pkgid, appid, metadata);
  return 0;
}

extern "C" int PKGMGR_MDPARSER_PLUGIN_UNINSTALL(const char* pkgid, const char* appid, GList* metadata) {
  PLUGIN_LOG("METADATA UNINSTALL");
  const guint length = g_list_length(metadata);
  PLUGIN_LOG("pkgid(%s) appid(%s) list(%d)", pkgid, appid, static_cast<int>(length));
  if (length == 0) {
    PLUGIN_LOG("[ERROR] No Engine Metadata");
    return 0;
  }
  for (const __metadata_t* item : MetadataItems(metadata)) {
    if (IsPluginTypeKey(item->key)) {
      CSingleton<PluginHandler>::GetInstance()->RemoveTpk(pkgid);
      break;
    }
  }
  PLUGIN_LOG("finish");
  return 0;
}
