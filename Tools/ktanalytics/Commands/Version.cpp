#include "Commands/Commands.h"

namespace kt::tool {

const char* versionString() { return KTANALYTICS_VERSION; }

}  // namespace kt::tool
