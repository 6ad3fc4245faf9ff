// Names safe to use as a single folder name.
#pragma once

#include <string>

namespace nvr {

// Trims `s`, turns every run of characters other than A-Z a-z 0-9 . _ - into one "_", strips
// leading and trailing "." and "_", and answers "unita" when nothing is left. Used for camera
// folders and mount points, so the result never contains "/" and is never "." or "..".
std::string _nome_sicuro(const std::string& s);

}  // namespace nvr
