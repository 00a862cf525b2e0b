// Random calls through the handles, on documents of both formats. Each has to do what a model of the document
// does: in its status, in what all handles show afterwards, and in what is in the file when nobody has it
// open.
//
// VEXEL_TEST_SEEDS, as in "7" or "0-300", says which scripts run. VEXEL_TEST_STATES is a folder that gets
// each package that was saved, with a size and a path for each item.

#include "support/storage_test.h"
#include "support/streams.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

using namespace Support;

namespace {

/// Contents by path. The path of a storage ends in "/", and that of the root is empty.
using Elements = std::map<std::wstring, std::string>;

Elements asMap(const std::vector<Element>& elements) {
    Elements map;
    for (const Element& element : elements)
        map[element.path] = element.contents;
    return map;
}
bool isStorage(const std::wstring& path) { return path.empty() || path.ends_with(L'/'); }
bool isBelow(const std::wstring& storage, const std::wstring& path) {
    return isStorage(storage) && path.starts_with(storage) && path != storage;
}
void eraseBelow(Elements& elements, const std::wstring& storage) {
    std::erase_if(elements, [&](const auto& element) { return isBelow(storage, element.first); });
}
void copyBelow(const Elements& from, const std::wstring& storage, Elements& to) {
    eraseBelow(to, storage);
    std::ranges::copy_if(from, std::inserter(to, to.end()),
                         [&](const auto& element) { return isBelow(storage, element.first); });
}
std::wstring parentOf(const std::wstring& path) {
    return path.substr(0, path.find_last_of(L'/', path.size() - 2) + 1);
}

class Script {
public:
    Script(const TempFolder& folder, StorageFormat format, unsigned seed)
        : format_(format), file_(folder.file(L"document")), copy_(folder.file(L"copy")), random_(seed) {
        writeDocument(file_, format, {{L"a/b", "text"}, {L"c", std::string(5000, 'c')}});
        saved_ = asMap(readDocument(file_, format));
    }

    void run(int steps) {
        using Call = void (Script::*)();
        static constexpr Call kCalls[] = {
            &Script::reach, &Script::useStream, &Script::close,   &Script::commit,  &Script::destroy,
            &Script::clear, &Script::copy,      &Script::compare, &Script::cleanUp, &Script::reopen};
        std::discrete_distribution<std::size_t> next{32, 24, 10, 8, 5, 1, 1, 2, 2, 2};
        openRoot();
        for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
            const std::size_t call = next(random_);
            SCOPED_TRACE("step " + std::to_string(i) + ", call " + std::to_string(call));
            (this->*kCalls[call])();
            look();
        }
        reopen();
        closeAll();
    }

private:
    /// What is known of an element that is open or cached.
    struct Item {
        bool isOpen = true;
        bool isWritable = false;
        unsigned long long position = 0; ///< of a stream
        /// Of a root, and of each storage of a compound file: what is in it.
        Elements work{}; // NOLINT(readability-redundant-member-init): GCC wants it
    };
    template <class Ref>
    struct Held {
        std::wstring path;
        Ref ref;
    };

    bool isPackage() const { return format_ == StorageFormat::Package; }
    std::size_t below(std::size_t limit) { return random_() % limit; }
    bool chance() { return below(2) == 0; }
    template <class Things>
    auto& any(Things& things) {
        return things[below(std::size(things))];
    }
    std::wstring anyName() {
        static constexpr const wchar_t* kNames[] = {L"a", L"b", L"c", L"\5d", L"100% \u0416", L"a-b"};
        return any(kNames);
    }
    Held<StorageRef> anyStorage() {
        const Held<StorageRef>& storage = any(storages_);
        // One that was closed because one above it was opened for writing could be opened for writing, too.
        EXPECT_NE(storage.ref.storage(), nullptr);
        return storage;
    }

    Elements& work(const std::wstring& storage) { return items_.at(isPackage() ? L"" : storage).work; }
    std::string& contentsOf(const std::wstring& stream) { return work(parentOf(stream)).at(stream); }
    template <class Predicate>
    bool anyHandle(Predicate is) const {
        return std::ranges::any_of(storages_, is) || std::ranges::any_of(streams_, is);
    }
    bool isHeld(const std::wstring& path) const {
        return anyHandle([&](const auto& held) { return held.path == path; });
    }
    bool isUsed(const std::wstring& path) const {
        return isHeld(path) || anyHandle([&](const auto& held) { return isBelow(path, held.path); });
    }
    bool hasItemsBelow(const std::wstring& path) const {
        return std::ranges::any_of(items_, [&](const auto& item) { return isBelow(path, item.first); });
    }
    /// Closes what no handle uses of an element and of what is below it.
    void forget(const std::wstring& path) {
        std::erase_if(items_, [&](const auto& item) {
            return !isUsed(item.first) && (item.first == path || isBelow(path, item.first));
        });
    }
    /// Together with all above.
    void makeWritable(const std::wstring& path) {
        for (auto& [above, item] : items_)
            item.isWritable |= above == path || isBelow(above, path);
    }
    /// The item of an element, which is opened with what the storage above knows of it.
    Item& open(const std::wstring& path) {
        const bool isNew = items_.emplace(path, Item()).second;
        Item& item = items_.at(path);
        if ((isNew || !item.isOpen) && isStorage(path) && !isPackage())
            copyBelow(work(parentOf(path)), path, item.work);
        item.isOpen = true;
        return item;
    }
    void openRoot() {
        const auto mode = chance() ? modeReadDenyWrite : modeWrite;
        storages_.push_back({L"", Support::openRoot(path(file_), mode)});
        items_[L""] = {.isWritable = mode == modeWrite, .work = saved_};
    }

    // The calls.

    /// Opens or makes an element.
    void reach() {
        const Held<StorageRef> parent = anyStorage();
        const std::wstring stream = parent.path + anyName(), storage = stream + L'/';
        const SharedPathName name = element(stream.substr(parent.path.size()));
        const bool isStream = chance(), creates = chance(), isReading = !creates && chance(),
                   replaces = creates && chance();
        const std::wstring &path = isStream ? stream : storage, &other = isStream ? storage : stream;
        Elements& all = work(parent.path);
        forget(other);
        if (creates)
            forget(path);
        long expected = S_OK;
        if (isUsed(other))
            expected = STG_E_INVALIDPARAMETER;
        else if (creates && all.contains(path) && (isHeld(path) || !(isStream || replaces)))
            expected = STG_E_FILEALREADYEXISTS;
        else if (creates && isUsed(path))
            expected = STG_E_INVALIDPARAMETER;
        else if (creates && isPackage() && all.contains(other))
            expected = isStream ? STG_E_FILEALREADYEXISTS : STG_E_INVALIDFUNCTION;
        else if (creates && !isStream && all.contains(other) && !replaces)
            expected = STG_E_FILEALREADYEXISTS;
        else if (isStream && !creates && !isReading && !items_.contains(path) &&
                 !items_.at(parent.path).isWritable)
            expected = STG_E_ACCESSDENIED;
        else if (!creates && !all.contains(path))
            expected = STG_E_FILENOTFOUND;

        const auto keep = [&](const auto& ref, auto& handles, long status) {
            EXPECT_EQ(status, expected);
            EXPECT_EQ(ref.notNull(), expected == S_OK);
            if (ref)
                handles.push_back({path, ref});
        };
        StorageRef storageRef = parent.ref;
        StreamRef streamRef = streams_.empty() ? StreamRef() : streams_[0].ref;
        long status = S_OK;
        if (isStream)
            status =
                creates ? streamRef.create(name, parent.ref) : streamRef.open(name, parent.ref, isReading);
        else
            status = creates ? storageRef.create(name, parent.ref, replaces)
                             : storageRef.open(name, parent.ref, isReading);
        if (!parent.ref.readOnly())
            makeWritable(parent.path);
        isStream ? keep(streamRef, streams_, status) : keep(storageRef, storages_, status);
        if (expected != S_OK) {
            cleanUp(); // which some failures bring with them
            return;
        }
        if (creates) {
            eraseBelow(all, storage);
            all.erase(other);
        }
        if (creates || (isStream && !isReading))
            all[path].clear();
        open(path).position = 0;
        if (!isReading)
            makeWritable(path);
    }
    /// Somewhere in it.
    void useStream() {
        if (streams_.empty())
            return;
        Held<StreamRef>&stream = any(streams_), &target = any(streams_);
        Item& item = items_.at(stream.path);
        std::string& all = contentsOf(stream.path);
        static constexpr std::size_t kMost[] = {1, 10, 100, 4097, 9000, 70'000};
        std::string data = noise(below(any(kMost)));
        const auto count = static_cast<unsigned long>(data.size());
        const std::size_t at = below(all.size() + 1), rest = all.size() - at, what = below(5);
        const long allowed = item.isWritable ? S_OK : STG_E_ACCESSDENIED;
        unsigned long done = 7;
        EXPECT_EQ(stream.ref.Seek(vxio::IStream::Begin, static_cast<long long>(at)), at);
        item.position = at;
        if (what == 0) {
            EXPECT_EQ(stream.ref.read(data.data(), count, &done), S_OK);
            EXPECT_TRUE(data.substr(0, done) == all.substr(at, count));
            item.position += (std::min)(data.size(), rest);
        } else if (what == 1 && stream.path != target.path) {
            EXPECT_EQ(stream.ref.copyTo(target.ref) == S_OK, items_.at(target.path).isWritable);
            if (items_.at(target.path).isWritable)
                contentsOf(target.path) = all;
            items_.at(target.path).position = target.ref.SeekToEnd();
        } else if (what == 1) {
            EXPECT_EQ(stream.ref.copyTo(target.ref), STG_E_INVALIDPARAMETER);
        } else if (what == 2) { // and goes on at the new end
            const std::size_t size = chance() ? 0 : at;
            EXPECT_EQ(stream.ref.setSize(size), allowed);
            EXPECT_EQ(stream.ref.GetPosition(), at);
            if (item.isWritable)
                all.resize(size);
            item.position = stream.ref.SeekToEnd();
        } else {
            EXPECT_EQ(stream.ref.write(data.data(), count, &done), allowed);
            if (item.isWritable)
                all.replace(at, data.size(), data);
            item.position += item.isWritable ? data.size() : 0;
        }
        if (!item.isWritable || what == 1)
            cleanUp();
    }
    /// One handle, but the first on the root.
    void close() {
        const std::size_t which = below(storages_.size() + streams_.size());
        if (which >= storages_.size()) {
            streams_.erase(streams_.begin() + static_cast<std::ptrdiff_t>(which - storages_.size()));
        } else if (which > 0) {
            const std::wstring path = storages_[which].path;
            storages_.erase(storages_.begin() + static_cast<std::ptrdiff_t>(which));
            if (!isPackage() && !isUsed(path) && !hasItemsBelow(path))
                items_.at(path) = {.isOpen = false};
        }
    }
    void commit() {
        const Held<StorageRef> storage = anyStorage();
        if (!items_.at(storage.path).isWritable)
            return;
        EXPECT_EQ(storage.ref.commit(), S_OK);
        if (isPackage() || storage.path.empty())
            saved_ = work(L"");
        else
            copyBelow(work(storage.path), storage.path, work(parentOf(storage.path)));
    }
    void destroy() {
        Held<StorageRef> parent = anyStorage();
        const std::wstring stream = parent.path + anyName(), storage = stream + L'/';
        Elements& all = work(parent.path);
        forget(stream);
        forget(storage);
        long expected = all.contains(stream) || all.contains(storage) ? S_OK : STG_E_FILENOTFOUND;
        if (isUsed(stream) || isUsed(storage))
            expected = STG_E_INUSE;
        else if (!items_.at(parent.path).isWritable)
            expected = STG_E_ACCESSDENIED;
        EXPECT_EQ(parent.ref.destroy(element(stream.substr(parent.path.size()))), expected);
        if (expected != S_OK) {
            cleanUp();
            return;
        }
        eraseBelow(all, storage);
        all.erase(stream);
        all.erase(storage);
    }
    void clear() {
        cleanUp();
        Held<StorageRef> storage = anyStorage();
        if (hasItemsBelow(storage.path))
            return;
        const long allowed = items_.at(storage.path).isWritable ? S_OK : STG_E_ACCESSDENIED;
        EXPECT_EQ(storage.ref.clear(), isPackage() ? allowed : STG_E_INVALIDFUNCTION);
        if (isPackage() && allowed == S_OK)
            eraseBelow(work(storage.path), storage.path);
    }
    /// Into a new document of either format.
    void copy() {
        cleanUp();
        const Held<StorageRef> from = anyStorage();
        if (hasItemsBelow(from.path))
            return;
        Elements expected{{L"z", "kept"}};
        for (const auto& [path, contents] : work(from.path))
            if (isBelow(from.path, path))
                expected[path.substr(from.path.size())] = contents;
        writeDocument(copy_, chance() ? StorageFormat::Package : StorageFormat::CompoundFile,
                      {{L"z", "kept"}});
        const StorageRef to = Support::openRoot(path(copy_), modeWrite);
        EXPECT_EQ(from.ref.copyTo(to), S_OK);
        EXPECT_TRUE(asMap(elementsOf(to)) == expected);
        cleanUp();
    }
    /// All that is seen through the root's handle; streams are read to their ends.
    void compare() {
        Elements all;
        for (const auto& [path, item] : items_) // those above come first
            if (isStorage(path) && item.isOpen && (path.empty() || !isPackage()))
                copyBelow(item.work, path, all);
        EXPECT_TRUE(asMap(elementsOf(storages_[0].ref)) == all);
        for (const auto& stream : streams_)
            items_.at(stream.path).position = contentsOf(stream.path).size();
        cleanUp();
    }
    void cleanUp() {
        container().deleteUnusedObjects();
        forget(L"");
    }
    void reopen() {
        closeAll();
        EXPECT_TRUE(asMap(readDocument(file_, format_)) == saved_);
        if (isPackage())
            keepState();
        openRoot();
    }
    /// After every call: what each handle says of itself.
    void look() {
        for (const auto& [path, ref] : storages_)
            EXPECT_EQ(ref.readOnly(), !items_.at(path).isWritable);
        for (auto& [path, ref] : streams_) {
            EXPECT_EQ(ref.readOnly(), !items_.at(path).isWritable);
            EXPECT_EQ(ref.GetPosition(), items_.at(path).position);
            EXPECT_EQ(ref.GetLength(), contentsOf(path).size());
        }
    }

    void closeAll() {
        streams_.clear();
        storages_.clear();
        items_.clear();
        if (isPackage())
            container().deleteUnusedObjects();
        const HANDLE file = CreateFileW(file_.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        EXPECT_TRUE(file != INVALID_HANDLE_VALUE && CloseHandle(file)) << "nobody has it open";
    }
    void keepState() const {
        static int number = 0;
        const char* const folder = std::getenv("VEXEL_TEST_STATES");
        if (!folder)
            return;
        const std::string name = folder + ("\\" + std::to_string(number++));
        std::filesystem::copy_file(file_, name + ".7z");
        std::ofstream list(name + ".txt");
        Vexel::Storage::SZipArchive archive(file_, true, true);
        EXPECT_EQ(archive.reload(), S_OK);
        for (const auto& [path, item] : archive.items())
            list << (item.isDirectory() ? "-" : std::to_string(item.size())) << ' '
                 << std::filesystem::path(path.GetString()).string() << '\n';
    }

    const StorageFormat format_;
    const std::wstring file_, copy_;
    std::mt19937 random_;
    Elements saved_; ///< what is in the file
    std::map<std::wstring, Item> items_;
    std::vector<Held<StorageRef>> storages_; ///< the first is on the root
    std::vector<Held<StreamRef>> streams_;
};

class Model : public StorageTest<testing::TestWithParam<StorageFormat>> {};

TEST_P(Model, IsWhatTheHandlesFollow) {
    unsigned long first = 0, last = 40;
    if (const char* const seeds = std::getenv("VEXEL_TEST_SEEDS")) {
        char* end = nullptr;
        first = std::strtoul(seeds, &end, 10);
        last = *end == '-' ? std::strtoul(end + 1, nullptr, 10) : first;
    }
    platform().flushFile = [](HANDLE) -> BOOL { return TRUE; }; // takes most of the time
    for (unsigned long seed = first; seed <= last && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Script(folder_, GetParam(), static_cast<unsigned>(seed)).run(150);
    }
}

INSTANTIATE_TEST_SUITE_P(Both, Model, testing::Values(StorageFormat::CompoundFile, StorageFormat::Package),
                         [](const auto& format) {
                             return format.param == StorageFormat::Package ? "Package" : "Compound";
                         });

} // namespace
