#include "app/ConfigurationRun.h"

namespace torva::app {

void configurationRun() {}

} // namespace torva::app
