#pragma once

#include <aws/core/client/AWSError.h>
#include <awslite/HttpCall.h>

#include <string>

namespace Awslite {

using CoreError = Aws::Client::AWSError<Aws::Client::CoreErrors>;

/// The error of a service that speaks JSON: the name is the header "x-amzn-errortype" or the
/// member "__type", the message the member "message" or "Message".
CoreError jsonError(const HttpAnswer& answer);

/// The error of a service that speaks XML. `document` is what could be read of the answer's body:
/// without a readable <Code> name and message are empty.
CoreError xmlError(const HttpAnswer& answer, const std::string& document);

/// A request that cannot be signed.
CoreError signingError();

/// The text of the first element `name` of the document, trimmed, with its entities and character
/// references decoded; "" when there is none.
std::string xmlElementText(const std::string& document, const std::string& name);

}  // namespace Awslite
