// One instance per listening port, and the request that it end.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/event_loop.h"

namespace trabex {

// Held as long as the object lives; it goes with the process, however that ends. On Linux its scope is the network
// namespace, as for the port itself; on Windows the user's session.
class InstanceLock {
 public:
  virtual ~InstanceLock() = default;
};

// The lock named `name` (on Linux its first 107 bytes count), or nothing when another instance holds it.
// `exit_requested` is called from the loop when another process asks for the end (RequestExit). Who may: on Linux the
// same user and root, requests of others are dropped; on Windows whom the system lets send to our windows. Raises 57 "Device I/O error" when the system refuses for
// another reason.
std::unique_ptr<InstanceLock> TryLockInstance(EventLoop& loop, std::string_view name,
                                              std::function<void()> exit_requested);

// The user whose process holds the lock named `name`, when that is not our own user: the user's name, or
// "uid <number>". Any process can take the name first, so that is no instance of ours.
// Nothing when our own user holds it, when it is free, or when the system does not say.
std::optional<std::string> OtherUserHolding(std::string_view name);

// Whether any process holds the lock named `name`.
bool IsInstanceLocked(std::string_view name);

enum class ExitRequest {
  kMade,
  kNoInstance,
  kOtherUser,  // the instance is another user's, and we are not root
  kFailed,     // it hangs, and takes no more requests
};

// Asks the instance named `name` to end. Does not wait for its end, and a second at most for the request to be
// taken.
ExitRequest RequestExit(std::string_view name);

}  // namespace trabex
