#include "tools/KivRequestProxy/KivModuleBase.h"

int commonMain(const std::vector<CStdStr>& args) {
    KivModuleBase* module = createKivModuleInstance();
    if (module->init(args)) {
        module->run();
        module->close();
    }
    delete module;
    return 0;
}
