#include "net/socket_errors.h"

namespace trabex {

void RaiseInvalidState(const char* source) {
  throw Error(40020, source, "Invalid operation at current state");
}

void RaiseBadArgument(const char* source) {
  throw Error(40014, source,
              "The argument passed to a function was not in the correct format or in the specified range.");
}

void RaiseBadAddress(const char* source) {
  throw Error(40014, source, "Invalid argument");
}

void RaiseWrongProtocolOrState(const char* source) {
  throw Error(40006, source, "Wrong protocol or connection state for the requested transaction or request");
}

void RaiseSocketError(int number, const char* source) {
  throw Error(number, source, std::string(SocketErrorText(number)));
}

}  // namespace trabex
