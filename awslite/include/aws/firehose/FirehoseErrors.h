#pragma once

#include <aws/core/client/AWSError.h>

namespace Aws {
namespace Firehose {

/// The errors of the service itself; the numbers below 128 are those of `CoreErrors`.
enum class FirehoseErrors {
    CONCURRENT_MODIFICATION = 129,
    INVALID_ARGUMENT,
    INVALID_K_M_S_RESOURCE,
    INVALID_SOURCE,
    LIMIT_EXCEEDED,
    RESOURCE_IN_USE
};

using FirehoseError = Client::AWSError<FirehoseErrors>;

}  // namespace Firehose
}  // namespace Aws
