// nikerkiog: try the library on real captures.
#include <CLI/CLI.hpp>

int main(int argc, char **argv) {
  CLI::App app{"nikerkiog: packet and rule utilities on captures"};
  app.require_subcommand(1);
  CLI11_PARSE(app, argc, argv);
  return 0;
}
