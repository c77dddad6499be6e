#pragma once

namespace Aws {
namespace Http {

enum class Scheme { HTTP, HTTPS };

}  // namespace Http
}  // namespace Aws
