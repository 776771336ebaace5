#include "init/init.h"

int main(int argc, char** argv) {
  return tessard_main(argc, argv);
}
