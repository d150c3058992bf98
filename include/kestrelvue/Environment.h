#pragma once
// Everything the library needs from its platform, in one place. A host installs its own with
// Environment::install() before the first use of a shared object; otherwise the default factory
// builds one: the host's (setDefaultFactory), else the platform layer's (on Linux: system clock,
// libcurl, default-route reachability, simulated sensors), else one of null objects.

#include <kestrelvue/Export.h>
#include <kestrelvue/NotificationCenter.h>
#include <kestrelvue/Value.h>
#include <kestrelvue/platform/Clock.h>
#include <kestrelvue/platform/Executor.h>
#include <kestrelvue/platform/HttpClient.h>
#include <kestrelvue/platform/OutboxStore.h>
#include <kestrelvue/platform/ReachabilityProbe.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kestrelvue {

namespace platform {
class MotionManager;
class LocationManager;
class Geocoder;
class Application;
class Device;
}  // namespace platform

/// The application information key that overrides the service's base URL at run time.
inline constexpr std::string_view kBaseURLKey = "KestrelvueServiceBaseURL";
/// The application information key that turns the durable outbox on (see outboxDirectory).
inline constexpr std::string_view kOutboxDirectoryKey = "KestrelvueOutboxDirectory";
/// The application information key that turns compressed uploads on (see compressUploads).
inline constexpr std::string_view kCompressUploadsKey = "KestrelvueCompressUploads";

/// The platform members are never empty where the library reads them: a new Environment holds a
/// null object in each (system clock, random identifiers, an HTTP client that fails every
/// request at once, no reachability, a queue that runs nothing, the default notification centre,
/// sensors that deliver nothing, a geocoder that fails every lookup at once, an application and
/// a device that do nothing), and install() puts one back in any member set to null.
struct KESTRELVUE_EXPORT Environment {
    Environment();

    std::shared_ptr<platform::Clock> clock;
    std::shared_ptr<platform::IdGenerator> ids;
    std::shared_ptr<platform::HttpClient> http;
    std::shared_ptr<platform::ReachabilityProbe> reachability;
    /// The host's main queue: motion samples and geocoder answers are delivered through it.
    std::shared_ptr<platform::Executor> mainQueue;
    std::shared_ptr<NotificationCenter> notifications;
    /// Factories for the sensor managers: the engine creates fresh ones at initialisation.
    std::function<std::shared_ptr<platform::MotionManager>()> makeMotionManager;
    std::function<std::shared_ptr<platform::LocationManager>()> makeLocationManager;
    std::shared_ptr<platform::Geocoder> geocoder;
    std::shared_ptr<platform::Application> application;
    std::shared_ptr<platform::Device> device;
    /// The host's application information list; nullopt when it cannot be read.
    std::optional<Object> applicationInfo;
    /// Turns the durable outbox on: the directory its store lives in (made when missing). When
    /// empty, the application information's kOutboxDirectoryKey text serves; without either the
    /// outbox is off and uploads behave exactly as documented.
    std::string outboxDirectory;
    /// Opens the outbox store in a directory. The default Linux environment opens SQLite
    /// (posix::SqliteOutboxStore); without a factory the outbox stays off.
    std::function<std::unique_ptr<platform::OutboxStore>(const std::string& directory)>
        makeOutboxStore;

    /// Sends motion bulks gzip-compressed with "Content-Encoding: gzip" (about a seventh of the
    /// bytes); the outbox then keeps them compressed too. A service that answers 415 gets the
    /// upload again uncompressed, and plain bodies from then on. Off by default: the bodies are
    /// then exactly as documented. The application information's kCompressUploadsKey (true)
    /// turns it on as well; the Linux default environment sets it from
    /// KESTRELVUE_COMPRESS_UPLOADS=1.
    bool compressUploads = false;

    /// outboxDirectory, or the application information's kOutboxDirectoryKey text, or empty.
    std::string outboxPath() const;
    /// compressUploads, or the application information's kCompressUploadsKey.
    bool uploadsCompressed() const;

    /// The service's base URL: the application information's kBaseURLKey text when present and
    /// non-empty, otherwise the build-time default (KESTRELVUE_DEFAULT_BASE_URL).
    std::string baseURL() const;
    /// baseURL() + path.
    std::string serviceURL(std::string_view path) const;

    /// Installs the process-wide environment, with null objects in the members left null. Takes
    /// effect for shared objects created afterwards.
    static void install(Environment environment);
    /// The installed environment; when none was installed, the one the default factory builds at
    /// the first call (and keeps for the process).
    static const Environment& current();
    /// Sets the factory current() uses when nothing was installed, in place of the platform
    /// layer's. It may build on makeDefault(), and must not call current().
    static void setDefaultFactory(std::function<Environment()> factory);
    /// The platform layer's default environment (on Linux, posix::defaultEnvironment()), or an
    /// environment of null objects in a build without one.
    static Environment makeDefault();
};

KESTRELVUE_EXPORT std::string_view defaultBaseURL();

}  // namespace kestrelvue
