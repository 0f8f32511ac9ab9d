#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "app/start_up.h"
#include "app/version.h"
#include "console/main_view.h"
#include "platform/clock.h"
#include "platform/message.h"
#include "platform/process.h"
#include "platform/sandbox.h"
#include "tls/tls_allocation.h"

int main(int argc, char** argv) {
  trabex::LetTlsUseReserve();
  trabex::PrepareProcess(argc, argv);
  trabex::CommandStreams streams;
  try {
    const std::vector<std::string> tokens = trabex::CommandLineTokens(argc, argv);
    const std::vector<std::string_view> arguments(tokens.begin(), tokens.end());
    const trabex::SystemClock clock;
    return trabex::RunProgram(arguments, {.clock = clock,
                                          .out = streams.Out(),
                                          .err = streams.Err(),
                                          .answered = [&streams] { streams.Show(); },
                                          .enclose = trabex::EncloseProcess});
  } catch (const std::exception& error) {
    // The system refused what nothing can be done without: memory, an event queue. Or the command line is no such.
    streams.Err() << trabex::kApplicationTitle << ": " << error.what() << '\n';
    streams.Show();
    return 1;
  }
}
