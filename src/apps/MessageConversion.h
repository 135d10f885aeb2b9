#pragma once

#include "apps/ApplicationSession.h"
#include "apps/BrokerState.h"
#include "apps/Subscriptions.h"
#include "common/Publisher.h"
#include "common/RmqMessage.h"
#include "qel/apps/v1/applications.pb.h"

#include <string>

namespace VtxQel
{

/**
 * Copies the properties into their form for applications, in place of what is there. Tables nested beyond any sense end
 * in a null.
 */
void ToProto(const RmqProperties& properties, qel::apps::v1::Properties& proto);

/** Fills a delivery for an application but for its body and its idempotency key, in place of what is there. */
void ToProto(const SessionDelivery& delivery, bool isPriority, qel::apps::v1::Delivery& proto);

/** Fills the state of a configuration; of very long lists the beginning, and says so. */
void ToProto(const ConfigurationStatus& status, qel::apps::v1::Configuration& proto);

qel::apps::v1::Broker::State ToProto(BrokerState state);

/** What names a message for an application each time that it is delivered; empty without a message id. */
std::string IdempotencyKey(const std::string& application, const std::string& messageId);

/**
 * Checks and copies properties from an application.
 * @return empty, or what is wrong with them.
 */
std::string FromProto(const qel::apps::v1::Properties& proto, RmqProperties& properties);

/**
 * Checks a request to publish and makes the message of it, the body moved over.
 * @return empty, or what is wrong with it.
 */
std::string FromProto(qel::apps::v1::PublishRequest& request, OutgoingMessage& message);

} // namespace VtxQel
