// The folder of the product's executables. Kept apart: it reads the settings store.
#include "files/CFileTools.h"
#include "files/CStdPath.h"
#include "host/CRegistry.h"
#include "host/KivFolders.h"

CStdStr CFileTools::getKivBinFolderPath() {
    CStdStr installDir;
    if (CRegistry::getInstance()->ReadSettingImpl("Software\\Kiv Foundry\\Kiv", "InstallDir", installDir)) {
        CStdPath bin(installDir);
        bin.AppendPath("bin");
        return bin;
    }
    return getKivBinFolderPathMac();
}

// There is no fixed application folder here: the running executable's folder
// is used whether or not it holds the launcher.
CStdStr CFileTools::getKivBinFolderPathMac() {
    CStdStr folder = KivFolders::ExecutableFolder();
    if (testKivBinPath(folder)) return folder;
    return folder;
}

bool CFileTools::testKivBinPath(const CStdStr& folder) { return CFileTools(folder + "/KivLauncher").exists(); }
