// Template bodies of log.h.
#pragma once

namespace trabex {

template <class Action>
void RunLogged(Log& log, std::string_view source, Action&& action) {
  try {
    action();
  } catch (const Error& error) {
    log.LogError(error);
  } catch (const std::exception& error) {
    log.LogError(error_number::kOutOfMemory, error.what(), source);
  }
}

}  // namespace trabex
