// Members of the socket object that nothing in this program calls: the tag, and what it says of this
// machine.
#include "net/CSocketMaster_impl.h"
#include "net/known_host.h"

namespace trabex {

namespace {

const std::string& NoText() {
  static const std::string none;
  return none;
}

}  // namespace

const std::string& CSocketMaster::Tag() const {
  return cold_ ? cold_->tag : NoText();
}

void CSocketMaster::SetTag(std::string strTag) {
  GetColdState().tag = std::move(strTag);
}

std::string CSocketMaster::LocalHostName(bool bNotCached) {
  ColdState& cold = GetColdState();
  if (bNotCached || !cold.local_host_name_valid) {
    cold.local_host_name = GetLocalHostName();
    cold.local_host_name_valid = true;
  }
  return cold.local_host_name;
}

std::string CSocketMaster::GetLocalHostName() {
  const NameAnswer answer = module_.names_.LocalHostName();
  Check(answer.error, "CSocketMaster.GetLocalHostName");
  return answer.name;
}

std::string CSocketMaster::LocalIP() {
  if (state_ == SocketState::sckOpen || state_ == SocketState::sckListening)
    return FormatIPAddress(GetColdState().local_ip);
  return GetLocalIP();
}

std::string CSocketMaster::GetLocalIP() {
  constexpr const char* kSource = "CSocketMaster.GetLocalIP";
  const NameAnswer name = module_.names_.LocalHostName();
  Check(name.error, kSource);
  const HostAddress address = LookUpKnownHost(module_.names_, name.name);
  Check(address.error, kSource);
  return FormatIPAddress(address.address);
}

std::vector<std::string> CSocketMaster::GetLocalIPAddresses() {
  std::vector<IPAddress> addresses;
  Check(module_.sockets_.LocalAddresses(addresses), "CSocketMaster.GetLocalIPAddresses");
  std::vector<std::string> texts;
  texts.reserve(addresses.size());
  for (const IPAddress& address : addresses) texts.push_back(FormatIPAddress(address));
  return texts;
}

}  // namespace trabex
