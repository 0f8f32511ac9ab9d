// One instance per listening port, and the request that it end.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/event_loop.h"

namespace trabex {

// Held as long as the object lives; it goes with the process, however that ends. It holds as far as the system lets
// processes see each other: as far as the port itself counts, or in the user's session.
class InstanceLock {
 public:
  virtual ~InstanceLock() = default;
};

// The lock named `name` (107 bytes of it, if the system has no room for more), or nothing when another instance holds it.
// `exit_requested` is called from the loop when another process asks for the end (RequestExit): one of the same user or
// the administrator's, or whom the system lets send to our windows; requests of others are dropped. Raises 57
// "Device I/O error" when the system refuses for another reason.
std::unique_ptr<InstanceLock> TryLockInstance(EventLoop& loop, std::string_view name,
                                              std::function<void()> exit_requested);

// The user whose process holds the lock named `name`, when that is not our own user: the user's name, or
// "uid <number>" where it has none. Any process can take the name first, so that is no instance of ours.
// Nothing when our own user holds it, when it is free, or when the system does not say.
std::optional<std::string> OtherUserHolding(std::string_view name);

// Whether any process holds the lock named `name`.
bool IsInstanceLocked(std::string_view name);

enum class ExitRequest {
  kMade,
  kNoInstance,
  kOtherUser,  // the instance is another user's, and we have no right to
  kFailed,     // it hangs, and takes no more requests
};

// Asks the instance named `name` to end. Does not wait for its end, and a second at most for the request to be
// taken.
ExitRequest RequestExit(std::string_view name);

}  // namespace trabex
