// Listing the catalogue beside a bare parse and walk of the same indexes: 4 repositories of 5,000
// templates with 15 children each.

#include <libxml/parser.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <list>
#include <pugixml.hpp>

#include "brefir/ostemplates.h"
#include "prefix.h"
#include "ratio.h"

namespace {

constexpr int kRepositories = 4;
constexpr int kTemplates = 5000;
const char* const kNames[kRepositories] = {"Velkor", "main", "extra", "third"};

std::string Element(int number) {
  const std::string n = std::to_string(number);
  return "  <elem>\n    <osname>Debian-" + n +
         "-amd64</osname>\n    <type>preinstalled</type>\n    <filename>debian-" + n +
         "-amd64.tar.gz</filename>\n    <chpasswd_method>shadow</chpasswd_method>\n"
         "    <sshpublickey base64=\"yes\">yes</sshpublickey>\n"
         "    <utcmtime>2026-03-01 10:20:30</utcmtime>\n    <loaderefi64/>\n    <macro/>\n"
         "    <tags>linux,debian,amd64</tags>\n    <hddraid>raid1</hddraid>\n"
         "    <support>\n      <elem version=\"5.100\">nodeadmin</elem>\n"
         "      <elem version=\"6.0.1\">cloudadmin</elem>\n    </support>\n"
         "    <description lang=\"en\">Debian " +
         n +
         " minimal system with SSH</description>\n"
         "    <description lang=\"ru\">Debian " +
         n +
         " minimal, SSH</description>\n"
         "    <rebootcount>2</rebootcount>\n    <image>vmlinuz-" +
         n + "</image>\n  </elem>\n";
}

/// The cache of a panel.
void MakeCache() {
  std::ofstream conf("etc/ostemplates.conf");
  for (const char* repository : kNames) {
    conf << "Repo ostemplates " << repository << " http://127.0.0.1:1/\n";
    std::filesystem::create_directories(std::filesystem::path("var/.oscache") / repository);
    std::ofstream index(ostemplate::GetCacheFile(repository));
    index << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<doc url=\"http://127.0.0.1:1/\">\n";
    for (int i = 0; i < kTemplates; ++i) index << Element(i);
    index << "</doc>\n";
  }
}

ostemplate::OsInfoMap List() {
  ostemplate::Manage manage("nodeadmin", "5.275.0", "/nonexistent", "");
  ostemplate::OsInfoMap templates;
  StringSet failed;
  if (!manage.GetTemplates(templates, &failed)) std::abort();
  return templates;
}

std::size_t Walk(const pugi::xml_document& document) {
  std::size_t bytes = 0;
  for (const pugi::xml_node elem : document.child("doc").children("elem")) {
    for (const pugi::xml_node child : elem.children()) {
      bytes += std::strlen(child.name()) + std::strlen(child.child_value());
    }
  }
  return bytes;
}

using Documents = std::list<pugi::xml_document>;

/// Parses and walks all indexes, and holds them all to the end.
Documents BareWalk(unsigned flags) {
  Documents documents;
  for (const char* repository : kNames) {
    pugi::xml_document& document = documents.emplace_back();
    if (!document.load_file(ostemplate::GetCacheFile(repository).c_str(), flags)) std::abort();
    benchmark::DoNotOptimize(Walk(document));
  }
  return documents;
}

std::size_t LibXml2Parse() {
  std::size_t documents = 0;
  for (const char* repository : kNames) {
    xmlDoc* document = xmlReadFile(ostemplate::GetCacheFile(repository).c_str(), nullptr, 0);
    if (document == nullptr) std::abort();
    ++documents;
    xmlFreeDoc(document);
  }
  return documents;
}

/// Times `work` without the release of what it returns: that is the caller's.
template <class Work>
void TimeWork(benchmark::State& state, Work work) {
  for (auto _ : state) {
    auto result = work();
    state.PauseTiming();
    result.clear();
    state.ResumeTiming();
  }
}

void GetTemplates(benchmark::State& state) {
  TimeWork(state, List);
}
void BarePugixml(benchmark::State& state) {
  TimeWork(state, [] { return BareWalk(pugi::parse_default); });
}
void BarePugixmlEmbedded(benchmark::State& state) {
  TimeWork(state, [] { return BareWalk(pugi::parse_default | pugi::parse_embed_pcdata); });
}
void BareLibXml2(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(LibXml2Parse());
}

/// Highest resident size so far, in KiB (proc(5)).
long PeakKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::atol(line.c_str() + 6);
  }
  return 0;
}

/// The peak of `work`, in a process of its own (this program again, below the same prefix).
long PeakOf(const char* work) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  FILE* pipe = popen((self + " --peak " + work).c_str(), "r");
  long peak = 0;
  if (pipe == nullptr || fscanf(pipe, "%ld", &peak) != 1) std::abort();
  pclose(pipe);
  return peak;
}

int PrintPeak(const std::string& work) {
  const long before = PeakKiB();
  if (work == "list") {
    List();
  } else {
    BareWalk(pugi::parse_default);
  }
  std::cout << PeakKiB() - before << "\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--peak") == 0) return PrintPeak(argv[2]);
  const bench::Prefix prefix;
  MakeCache();
  for (const auto& [name, function] :
       std::initializer_list<std::pair<const char*, void (*)(benchmark::State&)>>{
           {"GetTemplates", GetTemplates},
           {"BarePugixml", BarePugixml},
           {"BarePugixmlEmbedded", BarePugixmlEmbedded},
           {"BareLibXml2", BareLibXml2}}) {
    benchmark::RegisterBenchmark(name, function)
        ->Unit(benchmark::kMillisecond)
        ->Repetitions(7)
        ->ReportAggregatesOnly();
  }
  const int result = bench::MainInterleaved(
      {argv, argv + argc}, {{"GetTemplates", "BarePugixml", "at most 1.5, aim 1.2"},
                            {"GetTemplates", "BarePugixmlEmbedded", "for comparison"},
                            {"GetTemplates", "BareLibXml2", "below 1"}});
  const auto list = static_cast<double>(PeakOf("list"));
  const auto bare = static_cast<double>(PeakOf("bare"));
  bench::PrintPeaks("GetTemplates peak memory", "BarePugixml, all held", list, bare, "at most 1.6");
  return result;
}
