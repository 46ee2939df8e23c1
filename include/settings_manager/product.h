#pragma once

#include "settings_manager/export.h"

/// \file
/// The product identification text.

/// The product identification text of the shared library, kept in a section of its own
/// (.sdk_prod_name) so that tools can read it from the file without loading it.
extern "C" SETTINGS_MANAGER_API char const sdkProdName[];
