#pragma once

namespace Aws {
namespace Client {

/// Names the choices of signature version 4.
class AWSAuthV4Signer {
  public:
    /// Whether the hash of the body is part of the signature. `Never` counts over HTTPS only: an
    /// unprotected transfer is always signed whole. `RequestDependent` signs like `Always`.
    enum class PayloadSigningPolicy { RequestDependent, Always, Never };
};

}  // namespace Client
}  // namespace Aws
