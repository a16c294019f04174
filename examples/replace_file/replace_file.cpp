// Replaces a file on a node by standard input, waits for a line of the terminal, and puts it back.
//
// Usage: replace_file NODE KEY KNOWN_HOSTS PATH <TEXT
#include <fleet/file_change.h>
#include <pnl/err.h>
#include <pnl/host.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: replace_file NODE KEY KNOWN_HOSTS PATH <TEXT\n";
    return 2;
  }
  const std::string text(std::istreambuf_iterator<char>(std::cin), {});
  try {
    pnl_host::Host host(
        pnl_rpc::SSH({.host = argv[1], .key_file = argv[2], .known_hosts = argv[3]}));
    fleet::FileChange change(host, argv[4]);
    change.Make(text);
    std::cout << host.Name() << ": '" << change.Path() << "' is replaced; Enter puts it back"
              << std::endl;
    std::string line;
    std::ifstream terminal("/dev/tty");
    std::getline(terminal, line);
    change.PutBack();
    std::cout << "it is as it was\n";
  } catch (const pnl_err::Error& error) {  // what was changed stays, whole
    std::cerr << "replace_file: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
