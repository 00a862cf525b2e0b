// Reads a settings file, changes it, and saves it as another one.
//
//   settings_file.exe SETTINGS CHANGED-SETTINGS
//
// The file settings.ini beside this program's source is one to begin with.
#include <vexel/framework.h>
#include <vexel/ini.h>

#include <cstdio>
#include <optional>

namespace {

constexpr int kUsualWidth = 640;

void show(const vxio::IniFile& settings) {
    // Each getter has a value for the case that there is none, or that it is no number.
    std::printf("width %d, height %d, title '%ls'\n", settings.GetInt(L"Window", L"Width", kUsualWidth),
                settings.GetInt(L"Window", L"Height", 480),
                settings.GetString(L"Window", L"Title", L"untitled").GetString());
    // Where it matters whether a value is there, the getter that begins with Try says it.
    const std::optional<double> zoom = settings.TryGetDouble(L"View", L"Zoom");
    if (zoom)
        std::printf("zoom %g\n", *zoom);
    else
        std::printf("no zoom\n");
}

void listAll(const vxio::IniFile& settings) {
    for (const auto& [name, section] : settings)
        for (const auto& [key, value] : section)
            std::printf("%ls.%ls = %ls\n", name.GetString(), key.GetString(), value.GetString());
}

void change(vxio::IniFile& settings) {
    // Sections and keys keep their order, and are found without regard to case. What is new comes last.
    settings.SetInt(L"window", L"WIDTH", 1024);
    settings.SetDouble(L"View", L"Zoom", 1.5);
    settings.GetOrCreateSection(L"Recent").Remove(L"First").SetString(L"Last", L"plans\\roof.7z");
    // Values are saved without quotes, so that blanks around one would be lost: this is mended before.
    const CStringW title = settings.GetString(L"Window", L"Title", L"");
    settings.SetString(L"Window", L"Title", L"\"" + title + L"\"");
}

} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int count, wchar_t** arguments) {
    if (count != 3) {
        std::printf("usage: settings_file SETTINGS CHANGED-SETTINGS\n");
        return 2;
    }
    vxio::IniFile settings;
    // False also for a file with a line that is no setting. To save now would lose what the file has.
    if (!settings.Load(arguments[1])) {
        std::printf("the settings cannot be read\n");
        return 1;
    }
    show(settings);

    change(settings);
    if (!settings.Save(arguments[2])) {
        std::printf("the settings cannot be saved\n");
        return 1;
    }

    vxio::IniFile saved;
    if (!saved.Load(arguments[2])) {
        std::printf("the new settings cannot be read\n");
        return 1;
    }
    show(saved);
    listAll(saved);
    // A single value can be had, and set, without an object: that reads the whole file each time.
    std::printf("%d\n", vxio::IniFile::GetInt(L"Window", L"Width", kUsualWidth, arguments[2]));
    return 0;
}
