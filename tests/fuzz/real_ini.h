// The ini files of the platform itself in the place of the fake platform's, on texts in memory.
#pragma once

#include <string>

namespace real_ini {

void put(const std::string& path, const std::string& text);
void clear();

}  // namespace real_ini
