#include "torva/util/FatalError.h"

#include "torva/util/Demangle.h"
#include "torva/util/Traceback.h"
#include "torva/util/UtilityErrorStream.h"

#include <typeinfo>

namespace torva {

void printFatalError(const std::exception& error) {
    const char* mangled = typeid(error).name();
    const DemangledName name(mangled);
    utilityErrorStream << "Fatal error: " << (name ? name.get() : mangled) << '(' << error.what()
                       << ')' << std::endl;
    if (const auto* trace = dynamic_cast<const Traceback*>(&error)) {
        trace->print(utilityErrorStream);
    }
}

} // namespace torva
