// Moved to platform/adapt_common/; kept until screen/ includes the new path.
#pragma once
#include "platform/adapt_common/os_platform_check.h"
