#include <iostream>

#include "Commands.hpp"

namespace tsapp::tool {

void printError(const std::string& what) {
    std::string line = what;
    for (char& c : line) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    std::cerr << "tsapp: " << line << '\n';
}

}  // namespace tsapp::tool
