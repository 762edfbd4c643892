// Replays inputs through a fuzz target without libFuzzer: every regular
// file named on the command line, or found directly inside a directory
// named there, is read whole and handed to LLVMFuzzerTestOneInput once.
// Builds with any C++ compiler, so every configuration (cross compilers
// included) checks the committed corpus.  Exit status 0 when all inputs ran
// (a failed property aborts the program), 1 when a path cannot be read.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace {

bool read_file(const std::string &path, std::vector<std::uint8_t> &out) {
  std::FILE *f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  out.clear();
  std::uint8_t chunk[4096];
  std::size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) out.insert(out.end(), chunk, chunk + n);
  const bool ok = !std::ferror(f);
  std::fclose(f);
  return ok;
}

// Regular files directly inside `dir`, sorted so every run replays in the
// same order.
bool list_dir(const std::string &dir, std::vector<std::string> &files) {
  DIR *d = opendir(dir.c_str());
  if (!d) return false;
  std::vector<std::string> found;
  while (dirent *e = readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    struct stat st;
    const std::string path = dir + "/" + name;
    if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) found.push_back(path);
  }
  closedir(d);
  std::sort(found.begin(), found.end());
  files.insert(files.end(), found.begin(), found.end());
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    struct stat st;
    if (stat(argv[i], &st) != 0) {
      std::fprintf(stderr, "cannot read %s\n", argv[i]);
      return 1;
    }
    if (S_ISDIR(st.st_mode)) {
      if (!list_dir(argv[i], files)) {
        std::fprintf(stderr, "cannot list %s\n", argv[i]);
        return 1;
      }
    } else {
      files.push_back(argv[i]);
    }
  }
  std::vector<std::uint8_t> data;
  for (const std::string &path : files) {
    if (!read_file(path, data)) {
      std::fprintf(stderr, "cannot read %s\n", path.c_str());
      return 1;
    }
    LLVMFuzzerTestOneInput(data.data(), data.size());
  }
  std::printf("%zu inputs replayed\n", files.size());
  return 0;
}
