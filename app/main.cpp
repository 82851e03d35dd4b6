// torva-postfix-setup: configures an installed Postfix for the panel. No arguments, no
// input.
#include "app/ConfigurationRun.h"
#include "app/EntryPoint.h"

int main() {
    torva::app::makeWorldSane();
    return torva::app::entryPoint(torva::app::configurationRun);
}
