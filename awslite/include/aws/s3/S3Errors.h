#pragma once

#include <aws/core/client/AWSError.h>

namespace Aws {
namespace S3 {

/// The errors of the service itself; the numbers below 128 are those of `CoreErrors`.
enum class S3Errors {
    MISSING_PARAMETER = 9,
    BUCKET_ALREADY_EXISTS = 129,
    BUCKET_ALREADY_OWNED_BY_YOU,
    INVALID_OBJECT_STATE,
    NO_SUCH_BUCKET,
    NO_SUCH_KEY,
    NO_SUCH_UPLOAD,
    OBJECT_ALREADY_IN_ACTIVE_TIER,
    OBJECT_NOT_IN_ACTIVE_TIER
};

using S3Error = Client::AWSError<S3Errors>;

}  // namespace S3
}  // namespace Aws
