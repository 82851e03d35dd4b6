#include "app/ConfigurationRun.h"

#include "app/MainCfPhase.h"
#include "app/Progress.h"
#include "app/ServicesPhase.h"
#include "app/TablesPhase.h"
#include "app/TouchFile.h"
#include "torva/postfix/params/PostfixParameters.h"

namespace torva::app {

namespace {

void ensureMainCf(const Progress& progress) {
    const std::string& path = mail::postfix::PostfixParameters::instance().path();
    progress.header("Make sure " + path + " actually exists");
    touchFile(path);
}

} // namespace

void configurationRun() {
    const Progress progress(Progress::wanted());
    ensureMainCf(progress);
    tablesPhase(progress);
    mainCfPhase(progress);
    servicesPhase(progress);
    progress.header("Torva-specific configuration of Postfix completed successfully");
}

} // namespace torva::app
