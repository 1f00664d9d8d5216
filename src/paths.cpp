#include "paths.h"

#include <cstdlib>

namespace paths {

std::string resolve(const std::string& fixedPath)
{
    const char* root = std::getenv(kRootVariable);
    if (root == nullptr || *root == '\0') {
        return fixedPath;
    }
    std::string result(root);
    while (result.size() > 1 && result.back() == '/') {
        result.pop_back();
    }
    if (result == "/") {
        return fixedPath;
    }
    if (!fixedPath.empty() && fixedPath.front() != '/') {
        result.push_back('/');
    }
    return result + fixedPath;
}

}  // namespace paths
