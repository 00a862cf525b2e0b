// Settings files: loading and looking up, against simpleini and against the system's own functions.

#include "support/ratio.h"

#include <vexel/ini.h>

#include <windows.h>

#define SI_IMPLEMENTATION // the distribution's header wants one source with it
#include <SimpleIni.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

constexpr int kEntries = 10'000;
constexpr int kSections = 10;
constexpr int kSystemLookups = 200;

const std::wstring kPath = (std::filesystem::temp_directory_path() / L"vexel-bench.ini").wstring();

void require(bool works) {
    if (works)
        return;
    std::puts("a settings file failed");
    std::exit(1);
}

std::wstring sectionOf(int index) { return L"Section " + std::to_wstring(index % kSections); }
std::wstring keyOf(int index) { return L"Some.Settings.Key" + std::to_wstring(index); }

void make() {
    vxio::IniFile file;
    for (int i = 0; i < kEntries; ++i)
        file.SetString(sectionOf(i), keyOf(i), (L"value of the entry " + std::to_wstring(i)).c_str());
    require(file.Save(kPath.c_str()));
}

void load(benchmark::State& state) {
    for (auto _ : state) {
        vxio::IniFile file;
        require(file.Load(kPath.c_str()) && file.GetSections().size() == kSections);
    }
}

void loadPeer(benchmark::State& state) {
    for (auto _ : state) {
        CSimpleIniW file(true);
        require(file.LoadFile(kPath.c_str()) == SI_OK &&
                file.GetSectionSize(L"Section 1") == kEntries / kSections);
    }
}

void lookUp(benchmark::State& state) {
    vxio::IniFile file;
    require(file.Load(kPath.c_str()));
    for (auto _ : state)
        for (int i = 0; i < kEntries; ++i)
            require(file.GetString(sectionOf(i), keyOf(i), L"").GetLength() != 0);
}

void lookUpPeer(benchmark::State& state) {
    CSimpleIniW file(true);
    require(file.LoadFile(kPath.c_str()) == SI_OK);
    for (auto _ : state)
        for (int i = 0; i < kEntries; ++i)
            require(file.GetValue(sectionOf(i).c_str(), keyOf(i).c_str(), L"")[0] != 0);
}

/// Settings that a program asks for when it starts: our file is loaded for them, the system's functions take
/// the path each time.
void loadAndLookUp(benchmark::State& state) {
    for (auto _ : state) {
        vxio::IniFile file;
        require(file.Load(kPath.c_str()));
        for (int i = 0; i < kSystemLookups; ++i)
            require(file.GetString(sectionOf(i), keyOf(i), L"").GetLength() != 0);
    }
}

void lookUpBySystem(benchmark::State& state) {
    for (auto _ : state)
        for (int i = 0; i < kSystemLookups; ++i) {
            wchar_t value[100];
            require(GetPrivateProfileStringW(sectionOf(i).c_str(), keyOf(i).c_str(), L"", value, 100,
                                             kPath.c_str()) != 0);
        }
}

} // namespace

int main(int argc, char** argv) {
    make();
    Vexel::Bench::Suite suite;
    suite.compare("load 10,000 entries", 1.0, load, loadPeer);
    suite.compare("look 10,000 entries up", 1.0, lookUp, lookUpPeer);
    suite.compare("load, and look 200 entries up, against the system", 1.0, loadAndLookUp, lookUpBySystem);
    const int status = suite.run(argc, argv);
    DeleteFileW(kPath.c_str());
    return status;
}
