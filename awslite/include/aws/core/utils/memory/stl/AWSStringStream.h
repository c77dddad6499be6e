#pragma once

#include <aws/core/utils/memory/stl/AWSStreamFwd.h>

#include <sstream>

namespace Aws {

using StringStream = std::stringstream;
using IStringStream = std::istringstream;
using OStringStream = std::ostringstream;

}  // namespace Aws
