#pragma once

#include <windows.h>

#include <objbase.h>
#include <objidl.h>
#include <wrl/client.h>

#include <filesystem>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

/// Compound files made, changed and read by the system's own structured storage, to hold ours against.
/// A failing call of the system is reported as a test failure and ends the process: nothing works without.
namespace Support {

/// A sample of tests/data as Windows programs name it.
std::wstring samplePath(std::wstring_view name);

/// A new folder under the temporary directory; goes with all in it, read-only files included.
class TempFolder {
public:
    TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder();

    std::wstring file(std::wstring_view name) const;

private:
    std::filesystem::path path_;
};

/// An element by its path, names joined by "/"; one that ends in "/" is a storage, with no contents. The
/// storages above it are made as needed.
struct Element {
    std::wstring path;
    std::string contents;
    bool operator==(const Element&) const = default;
};
/// For the messages of failures.
void PrintTo(const Element& element, std::ostream* out);

/// Writes these elements into a new storage, the system's or ours, and commits it.
void writeElements(IStorage* root, const std::vector<Element>& elements);

/// Every element, depth first, in the order in which the storage lists them.
std::vector<Element> readElements(IStorage* root);

/// Writes a new compound file with these elements; `sectorSize` is 512 or 4096.
void writeCompoundFile(const std::wstring& file, const std::vector<Element>& elements,
                       unsigned sectorSize = 512);

/// Every element of a file.
std::vector<Element> readCompoundFile(const std::wstring& file);

/// Opens the root with the given STGM flags, or returns null.
Microsoft::WRL::ComPtr<IStorage> openCompoundFile(const std::wstring& file, DWORD stgm);

/// Plain files.
void writeFile(const std::wstring& file, std::string_view contents);
std::string readFile(const std::wstring& file);

} // namespace Support
