// Kept for the fuzz targets that include it: the manifest writer now lives in sandbox.h.
#pragma once
#include "sandbox.h"
