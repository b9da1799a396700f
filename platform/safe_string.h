// Moved to platform/adapt_common/; kept until screen/ includes the new path.
#pragma once
#include "platform/adapt_common/safe_string.h"
