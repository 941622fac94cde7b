// The flow-export daemon. Until the configuration and export subsystems land it only
// says so.
#include <cstdio>

int main() {
  std::printf("flowexportd: the agent is not built yet; the platform layer is.\n");
  return 0;
}
