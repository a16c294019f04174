// Listing the recipes of a repository beside a bare open, read and close of the same files: 10,000
// of 4 KiB each.

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "brefir/recipes.h"
#include "prefix.h"
#include "ratio.h"

namespace {

constexpr int kRecipes = 10000;
constexpr std::size_t kSize = 4096;

std::string Script(int number) {
  const std::string n = std::to_string(number);
  std::string text = "#!/bin/sh\n# metadata_begin\n# recipe: Recipe " + n +
                     "\n# tags: centos, debian, ubuntu\n# revision: 3\n"
                     "# description_en: Installs the service number " +
                     n + "\n# description_ru: Installs the service number " + n +
                     ", in another language\n# metadata_end\n";
  while (text.size() + 40 < kSize) text += "apt-get install -y package-" + n + "\n";
  text.resize(kSize, '\n');
  return text;
}

constexpr const char* kRepository = "recipes/repo/Velkor";

void MakeRecipes() {
  std::filesystem::create_directories(kRepository);
  for (int i = 0; i < kRecipes; ++i) {
    std::ofstream(kRepository + ("/recipe-" + std::to_string(i) + ".sh")) << Script(i);
  }
}

void List(benchmark::State& state) {
  for (auto _ : state) {
    recipe::RecipeMap recipes;
    StringSet failed;
    recipe::Manage("bench", "recipes").List(recipes, &failed);
    if (recipes.size() != kRecipes || !failed.empty()) std::abort();
    state.PauseTiming();
    recipes.clear();
    state.ResumeTiming();
  }
}

void BareRead(benchmark::State& state) {
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(kRepository)) {
    paths.push_back(entry.path());
  }
  char buffer[kSize];
  for (auto _ : state) {
    for (const std::string& path : paths) {
      const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0 || read(fd, buffer, sizeof buffer) != kSize || close(fd) != 0) std::abort();
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Prefix prefix;
  MakeRecipes();
  for (const auto& [name, function] :
       std::initializer_list<std::pair<const char*, void (*)(benchmark::State&)>>{
           {"List", List}, {"BareRead", BareRead}}) {
    benchmark::RegisterBenchmark(name, function)
        ->Unit(benchmark::kMillisecond)
        ->Repetitions(9)
        ->ReportAggregatesOnly();
  }
  return bench::MainInterleaved({argv, argv + argc}, {{"List", "BareRead", "at most 2"}});
}
