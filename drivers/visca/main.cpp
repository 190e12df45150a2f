// visca-driver - a driver process: serves the command channel of a camera that speaks VISCA.
#include "handles.h"
#include "visca_driver.h"

int main(int argc, char **argv) {
  const visca::Object<PTZKitDriver> driver(visca::new_driver());
  return ptz_kit_driver_run(driver.get(), argc, argv);
}
