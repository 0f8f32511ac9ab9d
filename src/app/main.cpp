#include <exception>
#include <iostream>
#include <string_view>
#include <vector>

#include "app/start_up.h"
#include "app/version.h"
#include "console/main_view.h"
#include "platform/clock.h"

int main(int argc, char** argv) {
  trabex::PrepareProcess(argc, argv);
  try {
    const std::vector<std::string_view> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    const trabex::SystemClock clock;
    return trabex::RunProgram(arguments, {.clock = clock, .out = std::cout, .err = std::cerr});
  } catch (const std::exception& error) {
    // The system refused what nothing can be done without: memory, an event queue.
    std::cerr << trabex::kApplicationTitle << ": " << error.what() << '\n';
    return 1;
  }
}
