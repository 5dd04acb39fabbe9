// qx_jpmd: the job messenger. A job script runs it once per event of its life.
#include "messenger/driver.h"

int main(int argc, char** argv) {
  return run_messenger(argc, argv);
}
