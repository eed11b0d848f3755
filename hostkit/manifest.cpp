#include "hostkit/manifest.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

namespace hostkit {
namespace {

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};
struct ParserContextFreer {
  void operator()(xmlParserCtxt* context) const { xmlFreeParserCtxt(context); }
};
struct DocumentFreer {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};
struct XmlStringFreer {
  void operator()(xmlChar* text) const { xmlFree(text); }
};
using XmlString = std::unique_ptr<xmlChar, XmlStringFreer>;

const char kApplicationSuffix[] = "-application";

// Whoever reads the reason shows it on one line: libxml2's messages end in a line feed and may hold more.
std::string OneLine(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  return text;
}

bool ReadWholeFile(const std::string& path, std::string& content, std::string& error) {
  std::unique_ptr<FILE, FileCloser> file(std::fopen(path.c_str(), "rb"));
  if (!file) {
    error = path + ": cannot open: " + std::strerror(errno);
    return false;
  }
  char buffer[4096];
  size_t count = 0;
  while ((count = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) content.append(buffer, count);
  if (std::ferror(file.get())) {
    error = path + ": cannot read: " + std::strerror(errno);
    return false;
  }
  return true;
}

bool HasName(const xmlNode* node, const char* name) {
  return node->type == XML_ELEMENT_NODE && std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

bool IsApplication(const xmlNode* node) {
  if (node->type != XML_ELEMENT_NODE) return false;
  const std::string name = reinterpret_cast<const char*>(node->name);
  const size_t suffix = sizeof kApplicationSuffix - 1;
  return name.size() > suffix && name.compare(name.size() - suffix, suffix, kApplicationSuffix) == 0;
}

// Attributes of the manifest format carry no namespace; a missing one is reported as absent.
bool Attribute(const xmlNode* node, const char* name, std::string& value) {
  XmlString text(xmlGetNoNsProp(node, reinterpret_cast<const xmlChar*>(name)));
  if (!text) return false;
  value = reinterpret_cast<const char*>(text.get());
  return true;
}

ManifestApp ReadApplication(const xmlNode* node) {
  ManifestApp app;
  Attribute(node, "appid", app.appid);
  for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
    std::string key;
    if (!HasName(child, "metadata") || !Attribute(child, "key", key)) continue;
    std::string value;
    Attribute(child, "value", value);
    app.metadata.emplace_back(std::move(key), std::move(value));
  }
  return app;
}

}  // namespace

bool ReadManifest(const std::string& path, Manifest& out, std::string& error) {
  std::string content;
  if (!ReadWholeFile(path, content, error)) return false;
  if (content.size() > static_cast<size_t>(INT_MAX)) {
    error = path + ": too large for a manifest";
    return false;
  }

  std::unique_ptr<xmlParserCtxt, ParserContextFreer> context(xmlNewParserCtxt());
  if (!context) {
    error = path + ": cannot create an XML parser";
    return false;
  }
  // No network, and no diagnostics of libxml2's own on standard error: the caller reports the reason.
  const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
  std::unique_ptr<xmlDoc, DocumentFreer> document(xmlCtxtReadMemory(
      context.get(), content.data(), static_cast<int>(content.size()), path.c_str(), nullptr, options));
  if (!document) {
    const xmlError* last = xmlCtxtGetLastError(context.get());
    error = path + ": not XML";
    if (last != nullptr && last->message != nullptr) {
      error += " (line " + std::to_string(last->line) + ": " + OneLine(last->message) + ")";
    }
    return false;
  }

  const xmlNode* root = xmlDocGetRootElement(document.get());
  if (root == nullptr || !HasName(root, "manifest")) {
    error = path + ": root element is not <manifest>";
    return false;
  }
  Manifest manifest;
  if (!Attribute(root, "package", manifest.package) || manifest.package.empty()) {
    error = path + ": <manifest> has no package attribute";
    return false;
  }
  Attribute(root, "version", manifest.version);
  for (const xmlNode* child = root->children; child != nullptr; child = child->next) {
    if (!IsApplication(child)) continue;
    ManifestApp app = ReadApplication(child);
    if (!app.appid.empty()) manifest.apps.push_back(std::move(app));
  }
  out = std::move(manifest);
  return true;
}

}  // namespace hostkit
