// Prints "<name> <version>" of an app package, as a host application would
// ask for it.

#include <tsappinstall/facade/Tsappinstall.hpp>

#include <iostream>
#include <string>

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::string path = argv[1];
    Corvane::addons::apps::Tsappinstall facade;
    try {
        const AppManifest manifest = facade.getAppInfo(std::u16string(path.begin(), path.end()));
        std::cout << std::string(manifest.name.begin(), manifest.name.end()) << ' '
                  << std::string(manifest.version.begin(), manifest.version.end()) << '\n';
    } catch (const std::exception& e) {
        std::cerr << e.what() << '\n';
        return 1;
    }
    return 0;
}
