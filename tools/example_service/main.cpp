// vantor-example-service: offers throw-away data to vantord, behaving as its
// command line says (see example_service.h).

#include "example_service.h"

int main(int argc, char** argv) {
  CLI::App app("Offers throw-away data to vantord under the identifier ID.",
               "vantor-example-service");
  vantor::example::Options options;
  vantor::example::addOptions(app, options);
  if (int status = 0; !vantor::example::parse(app, argc, argv, status))
    return status;
  return vantor::example::serve(options, vantor::example::makeService(options), {options.request});
}
