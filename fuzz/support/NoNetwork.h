#pragma once

#include <string>

#include "NetworkHelper.h"

/// In place of the network: each request is answered at once. A target that uses it names the
/// linker's wrap in CMakeLists.txt.
namespace fuzz {

/// What every request from now on brings; its status 0: no answer arrives.
void answerWith(const url_data& answer);
/// The URL of the last request.
const std::string& askedUrl();

}  // namespace fuzz
