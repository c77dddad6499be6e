#include "Filename.h"

std::string Filename::getFileExt(const std::string& name) {
    for (std::size_t i = name.size(); i > 1; --i) {
        const char c = name[i - 1];
        if (c == '/') return "";
        if (c == '.') return name.substr(i - 1);
    }
    return "";
}
