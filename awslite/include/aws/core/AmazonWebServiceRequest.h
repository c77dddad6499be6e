#pragma once

#include <aws/core/utils/memory/stl/AWSStreamFwd.h>

#include <functional>

namespace Aws {

/// Makes the stream that a response is written into; the client frees it.
using IOStreamFactory = std::function<IOStream*()>;

}  // namespace Aws
