// Runs a libFuzzer target's inputs without libFuzzer, so that any compiler can replay a corpus:
// every file named on the command line, and every regular file of a directory named there (in
// name order; hidden files and *.md notes are passed over). A failure aborts, as under the
// fuzzer; an argument that names nothing readable, or arguments that hold no input at all, fail
// the run, so that a moved corpus is not passed over.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

bool replay(const fs::path& file) {
   std::ifstream in(file, std::ios::binary);
   if (!in) {
      std::fprintf(stderr, "replay: cannot read %s\n", file.c_str());
      return false;
   }
   const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                 std::istreambuf_iterator<char>());
   std::fprintf(stderr, "replay: %s (%zu bytes)\n", file.c_str(), bytes.size());
   LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
   return true;
}

}  // namespace

int main(int argc, char** argv) {
   if (argc < 2) {
      std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY...\n", argv[0]);
      return 2;
   }
   size_t inputs = 0;
   for (int i = 1; i < argc; ++i) {
      const fs::path arg(argv[i]);
      std::error_code ec;
      if (fs::is_directory(arg, ec)) {
         std::vector<fs::path> files;
         for (const fs::directory_entry& e : fs::directory_iterator(arg, ec)) {
            const std::string name = e.path().filename().string();
            const bool note = name.front() == '.' || e.path().extension() == ".md";
            if (e.is_regular_file() && !note) files.push_back(e.path());
         }
         std::sort(files.begin(), files.end());
         for (const fs::path& f : files) {
            if (!replay(f)) return 1;
            ++inputs;
         }
      } else if (fs::is_regular_file(arg, ec)) {
         if (!replay(arg)) return 1;
         ++inputs;
      } else {
         std::fprintf(stderr, "replay: %s is neither a file nor a directory\n", argv[i]);
         return 1;
      }
   }
   if (inputs == 0) {
      std::fprintf(stderr, "replay: no inputs\n");
      return 1;
   }
   std::fprintf(stderr, "replay: %zu inputs, all passed\n", inputs);
   return 0;
}
