#pragma once

#include <aws/core/auth/AWSCredentialsProvider.h>
#include <aws/core/client/ClientConfiguration.h>
#include <aws/core/utils/Outcome.h>
#include <aws/firehose/FirehoseErrors.h>
#include <aws/firehose/model/PutRecordRequest.h>
#include <aws/firehose/model/PutRecordResult.h>

#include <memory>

namespace Aws {
namespace Firehose {
namespace Model {

using PutRecordOutcome = Utils::Outcome<PutRecordResult, FirehoseError>;

}  // namespace Model

/// Puts records into delivery streams. Each call makes one attempt on a connection of its own and
/// blocks until it is over; calls from several threads do not disturb each other.
class FirehoseClient {
  public:
    FirehoseClient(const std::shared_ptr<Auth::AWSCredentialsProvider>& credentialsProvider,
                   const Client::ClientConfiguration& clientConfiguration);

    Model::PutRecordOutcome PutRecord(const Model::PutRecordRequest& request) const;

  private:
    std::shared_ptr<Auth::AWSCredentialsProvider> m_credentialsProvider;
    Client::ClientConfiguration m_configuration;
};

}  // namespace Firehose
}  // namespace Aws
