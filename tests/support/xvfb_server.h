// Moved to tools/common/ (the host program starts the same server); kept until tests/screen/
// includes the new path.
#pragma once
#include "tools/common/xvfb_server.h"
