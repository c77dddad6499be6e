#pragma once

namespace Aws {
namespace S3 {
namespace Model {

/// Says nothing but that the object is stored.
class PutObjectResult {};

}  // namespace Model
}  // namespace S3
}  // namespace Aws
