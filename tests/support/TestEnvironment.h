#pragma once
// An Environment for integration tests pointed at a service: a fresh centre, a "reachable" probe,
// a real CurlHttpClient, a simulated main queue, the system clock and random identifiers. Sensors,
// geocoder, application and device are left for the engine's tests to fill.

#include <kestrelvue/Environment.h>
#include <kestrelvue/RestfulCall.h>
#include <kestrelvue/posix/CurlHttpClient.h>

#include <memory>

#include "support/TestDoubles.h"
#include "support/TestServer.h"

namespace kestrelvue::test {

Environment makeTestEnvironment(const TestServer& server, posix::CurlHttpClient::Options http = {});
/// The same pointed at any service, e.g. an in-process reference service.
Environment makeTestEnvironment(const std::string& baseURL,
                                posix::CurlHttpClient::Options http = {});

/// Probes for the common answers.
std::shared_ptr<platform::ReachabilityProbe> reachableProbe();
std::shared_ptr<platform::ReachabilityProbe> offlineProbe();  // no flags

/// A RestfulCall over the environment's client, centre and probe.
std::unique_ptr<RestfulCall> makeRestfulCall(const Environment& env);

}  // namespace kestrelvue::test
