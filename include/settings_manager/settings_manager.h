#pragma once

/// \file
/// Everything a client of the settings manager needs: include this one header.

#include "settings_manager/config.h"
#include "settings_manager/interfaces.h"
#include "settings_manager/last_result.h"
#include "settings_manager/limits.h"
#include "settings_manager/logging.h"
#include "settings_manager/paths.h"
#include "settings_manager/setting.h"
#include "settings_manager/version.h"
#include "uvc/id.h"
#include "uvc/path.h"
