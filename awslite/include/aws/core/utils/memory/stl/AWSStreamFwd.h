#pragma once

#include <fstream>
#include <istream>

namespace Aws {

using IStream = std::istream;
using OStream = std::ostream;
using IOStream = std::iostream;
using IFStream = std::ifstream;
using OFStream = std::ofstream;
using FStream = std::fstream;

}  // namespace Aws
