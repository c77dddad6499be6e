#pragma once

#include <aws/core/auth/AWSAuthSigner.h>
#include <aws/core/auth/AWSCredentialsProvider.h>
#include <aws/core/client/ClientConfiguration.h>
#include <aws/core/utils/Outcome.h>
#include <aws/s3/S3Errors.h>
#include <aws/s3/model/GetObjectRequest.h>
#include <aws/s3/model/GetObjectResult.h>
#include <aws/s3/model/PutObjectRequest.h>
#include <aws/s3/model/PutObjectResult.h>

#include <memory>

namespace Aws {
namespace S3 {
namespace Model {

using PutObjectOutcome = Utils::Outcome<PutObjectResult, S3Error>;
using GetObjectOutcome = Utils::Outcome<GetObjectResult, S3Error>;

}  // namespace Model

/// Stores and fetches objects. Each call makes one attempt on a connection of its own and blocks
/// until it is over; calls from several threads do not disturb each other, as long as they do not
/// share a body. A client may be made and used in a forked child.
class S3Client {
  public:
    /// With `useVirtualAddressing` a bucket that can be a host name becomes the first part of
    /// the host; otherwise, and for every other bucket, it is the first part of the path.
    S3Client(const std::shared_ptr<Auth::AWSCredentialsProvider>& credentialsProvider,
             const Client::ClientConfiguration& clientConfiguration,
             Client::AWSAuthV4Signer::PayloadSigningPolicy signPayloads, bool useVirtualAddressing);

    Model::PutObjectOutcome PutObject(const Model::PutObjectRequest& request) const;
    Model::GetObjectOutcome GetObject(const Model::GetObjectRequest& request) const;

  private:
    std::shared_ptr<Auth::AWSCredentialsProvider> m_credentialsProvider;
    Client::ClientConfiguration m_configuration;
    Client::AWSAuthV4Signer::PayloadSigningPolicy m_signPayloads;
    bool m_useVirtualAddressing;
};

}  // namespace S3
}  // namespace Aws
