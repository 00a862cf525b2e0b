// Power that goes at any moment of a save: of changes, of what was copied into a document or into a new one,
// of a package that is made anew in its place. The system is taken to keep what was not flushed: of that any
// part, in any order, has reached the disk, sector by sector. What is done to names reaches it in its order,
// but may be late, unless the call was to wait for it. The document on the disk is the old one or the new
// one, whole, and the new one once the commit has returned. (A compound file is written by the system, which
// nobody gets between.)
//
// VEXEL_TEST_CUTS says how often the power goes, about.

#include "support/storage_test.h"
#include "support/streams.h"

#include <vexel/ini.h>

#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>

using namespace Support;

namespace {

using Vexel::Detail::Platform;

/// What the files of the folder would be, had the power gone.
class UnsafeDisk {
public:
    using Files = std::map<std::wstring, std::string>;
    /// Called at each moment when something may be lost.
    static inline std::function<void()> atEachMoment;
    static inline std::mt19937 random{1};

    UnsafeDisk() {
        Platform& calls = Vexel::Detail::platform();
        calls.createFile = create;
        calls.writeFile = write;
        calls.setEndOfFile = setEnd;
        calls.setFileInformation = setInformation;
        calls.flushFile = flush;
        calls.moveFile = move;
        calls.deleteFile = remove;
    }
    UnsafeDisk(const UnsafeDisk&) = delete;
    UnsafeDisk& operator=(const UnsafeDisk&) = delete;
    ~UnsafeDisk() {
        atEachMoment = nullptr;
        durable.clear();
        current.clear();
        written.clear();
        journal.clear();
    }

    /// A file that has been on the disk for long.
    static void adopt(const std::wstring& path, const std::string& bytes) {
        durable[path] = current[path] = std::make_shared<File>(File{bytes, {}});
    }
    /// One way in which a cut may come out.
    static Files cut() {
        Names names = durable;
        for (std::size_t i = 0, end = random() % (journal.size() + 1); i < end; ++i)
            journal[i](names);
        Files files;
        for (const auto& [name, file] : names)
            files[name] = file->afterCut();
        return files;
    }

private:
    struct Change {
        std::uint64_t at;
        std::string bytes;
        bool isEnd; ///< of the file
    };
    struct File {
        std::string durable;
        std::vector<Change> pending;

        static void apply(std::string& to, const Change& change, bool isTorn) {
            constexpr std::size_t kSector = 512;
            const auto at = static_cast<std::size_t>(change.at);
            if (change.isEnd) {
                to.resize(at);
                return;
            }
            for (std::size_t done = 0, size = 0; done < change.bytes.size(); done += size) {
                size = (std::min)(kSector - (at + done) % kSector, change.bytes.size() - done);
                if (isTorn && random() % 2)
                    continue;
                to.resize((std::max)(to.size(), at + done + size));
                to.replace(at + done, size, change.bytes, done, size);
            }
        }
        std::string afterCut() const {
            std::string bytes = durable;
            std::vector<Change> some = pending;
            const unsigned luck = random() % 4; // all of it, in order, is one way, too
            if (luck != 0)
                std::shuffle(some.begin(), some.end(), random);
            for (const Change& change : some)
                if (luck == 0 || random() % 3 != 0)
                    apply(bytes, change, luck > 1);
            return bytes;
        }
        void settle() {
            for (const Change& change : std::exchange(pending, {}))
                apply(durable, change, false);
        }
    };
    using Names = std::map<std::wstring, std::shared_ptr<File>>;

    static void note(const std::function<void(Names&)>& operation) {
        operation(current);
        journal.push_back(operation);
        moment();
    }
    static void note(HANDLE file, Change change) {
        if (const auto found = written.find(file); found != written.end())
            found->second->pending.push_back(std::move(change));
        moment();
    }
    static void moment() {
        if (atEachMoment)
            atEachMoment();
    }

    static HANDLE create(const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                         DWORD how, DWORD flags, HANDLE model) {
        const HANDLE made = CreateFileW(name, access, share, security, how, flags, model);
        if (made == INVALID_HANDLE_VALUE || !(access & GENERIC_WRITE))
            return made;
        const auto found = current.find(name);
        if (found == current.end())
            note([path = std::wstring(name), file = std::make_shared<File>()](Names& names) {
                names[path] = file;
            });
        written[made] = current.at(name);
        if (how == CREATE_ALWAYS)
            note(made, {0, {}, true});
        return made;
    }
    static BOOL write(HANDLE file, const void* data, DWORD size, DWORD* count, OVERLAPPED* at) {
        LARGE_INTEGER place{};
        SetFilePointerEx(file, {}, &place, FILE_CURRENT);
        const BOOL isWritten = WriteFile(file, data, size, count, at);
        note(file,
             {static_cast<std::uint64_t>(place.QuadPart), {static_cast<const char*>(data), *count}, false});
        return isWritten;
    }
    static BOOL setEnd(HANDLE file) {
        LARGE_INTEGER place{};
        SetFilePointerEx(file, {}, &place, FILE_CURRENT);
        note(file, {static_cast<std::uint64_t>(place.QuadPart), {}, true});
        return SetEndOfFile(file);
    }
    static BOOL setInformation(HANDLE file, FILE_INFO_BY_HANDLE_CLASS what, void* data, DWORD size) {
        const auto end = static_cast<FILE_END_OF_FILE_INFO*>(data)->EndOfFile.QuadPart;
        note(file, {static_cast<std::uint64_t>(end), {}, true});
        return SetFileInformationByHandle(file, what, data, size);
    }
    static BOOL flush(HANDLE file) {
        moment();
        if (const auto found = written.find(file); found != written.end())
            found->second->settle();
        moment();
        return TRUE;
    }
    static BOOL move(const wchar_t* from, const wchar_t* to, DWORD flags) {
        if (!MoveFileExW(from, to, flags))
            return FALSE;
        note([old = std::wstring(from), path = std::wstring(to)](Names& names) {
            names[path] = names.at(old);
            names.erase(old);
        });
        if (flags & MOVEFILE_WRITE_THROUGH) {
            for (const auto& operation : std::exchange(journal, {}))
                operation(durable);
            moment();
        }
        return TRUE;
    }
    static BOOL remove(const wchar_t* name) {
        if (!DeleteFileW(name))
            return FALSE;
        note([path = std::wstring(name)](Names& names) { names.erase(path); });
        return TRUE;
    }

    static inline Names durable, current;
    static inline std::map<HANDLE, std::shared_ptr<File>> written;
    static inline std::vector<std::function<void(Names&)>> journal;
};

class PowerCuts : public StorageTest<> {
protected:
    using Elements = std::vector<Element>;

    static unsigned wanted() {
        const char* const text = std::getenv("VEXEL_TEST_CUTS");
        return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : 2000;
    }
    static unsigned below(unsigned limit) { return static_cast<unsigned>(UnsafeDisk::random() % limit); }

    /// A file as a cut leaves it; nothing when it is not there.
    using Left = std::optional<std::string>;
    static Left leftOf(const UnsafeDisk::Files& files, const std::wstring& file) {
        const auto found = files.find(file);
        return found == files.end() ? Left() : found->second;
    }

    /// Runs what changes the file, and has the power go at each moment of it. `isRight` is asked for each
    /// way in which a cut leaves it.
    template <class Call, class IsRight>
    void run(const std::wstring& file, Call call, IsRight isRight) {
        std::set<Left> left;
        UnsafeDisk::Files any; // of the moments, any
        UnsafeDisk::atEachMoment = [&, count = 0U]() mutable {
            for (int i = 0; i < 3; ++i, ++cuts_) {
                UnsafeDisk::Files files = UnsafeDisk::cut();
                left.insert(leftOf(files, file));
                if (below(++count) == 0)
                    any = std::move(files);
            }
        };
        call();
        UnsafeDisk::atEachMoment = nullptr;
        // Judged only now, when nobody uses the seam for anything else.
        const PlatformGuard guard;
        Vexel::Detail::platform() = real_;
        for (const Left& bytes : left)
            EXPECT_TRUE(isRight(bytes)) << (bytes ? "of " + std::to_string(bytes->size()) + " bytes" : "none")
                                        << ", after " << cuts_ << " cuts";
        if (file.ends_with(L".7z") && below(4) == 0)
            goOnAfter(any, file);
    }
    /// What a cut has left beside the document does not hinder the next save.
    void goOnAfter(const UnsafeDisk::Files& left, const std::wstring& file) {
        const Left document = leftOf(left, file);
        Elements expected = document ? documentOf(*document) : Elements{};
        for (const auto& [name, bytes] : left) {
            const std::wstring copy = after_.file(name.substr(name.rfind(L'\\') + 1));
            DeleteFileW(copy.c_str());
            if (!bytes.empty())
                writeFile(copy, bytes);
            leftBeside_ += name != file && !bytes.empty();
        }
        const std::wstring copy = after_.file(file.substr(file.rfind(L'\\') + 1));
        StorageRef root;
        EXPECT_EQ(document ? root.open(path(copy), modeWrite, false) : root.create(path(copy)), S_OK);
        newStream(L"afterwards", root, "goes on");
        EXPECT_EQ(root.commit(), S_OK);
        closeForGood(root);
        expected.push_back({L"afterwards", "goes on"});
        EXPECT_EQ(sorted(readDocument(copy, StorageFormat::Package)), sorted(expected));
    }
    Elements documentOf(const std::string& bytes) {
        const std::wstring copy = after_.file(L"looked at");
        writeFile(copy, bytes);
        StorageRef root;
        if (root.open(path(copy), modeRead, false) != S_OK)
            return {{L"unreadable", ""}};
        const Seen seen = see(root);
        closeForGood(root);
        return seen.whole() ? sorted(seen.elements) : Elements{{L"damaged", ""}};
    }
    void change(const StorageRef& root) {
        const std::wstring name = std::wstring(1, static_cast<wchar_t>(L'a' + below(3)));
        switch (below(4)) {
        case 0:
            StorageRef(root).destroy(element(name));
            break;
        case 1:
            if (!root.hasChild(element(L"d"), StorageType::Storage))
                newStorage(L"d", root);
            newStream(name.c_str(), openStorage(L"d", root, false), noise(below(200'000)));
            break;
        default:
            newStream(name.c_str(), root, std::string(below(3000), static_cast<char>('a' + below(26))));
        }
    }

    /// Brings the root to what is to be committed, and says what that is.
    Elements prepare(StorageRef& root, const std::wstring& file, bool isNew) {
        const unsigned way = below(isNew ? 3 : 4);
        ++ways_[way];
        if (way == 3) {
            closeForGood(root);
            EXPECT_EQ(root.convert(path(file), modeWrite), S_OK);
        }
        if (way < 2) {
            const StorageRef source =
                openRoot(path(after_.file(way ? L"source.7z" : L"source.doc")), modeRead);
            if (way == 1 && isNew && below(2)) {
                EXPECT_EQ(root.borrowPackedData(source), 1);
            }
            EXPECT_EQ(source.copyTo(root), S_OK);
            EXPECT_EQ(read(L"e", root), "end");
        } else {
            change(root);
            change(root);
        }
        return sorted(elementsOf(root));
    }

    const TempFolder after_;
    const Platform real_ = Vexel::Detail::platform();
    unsigned cuts_ = 0, leftBeside_ = 0;
    std::array<unsigned, 4> ways_{};
};

TEST_F(PowerCuts, LeaveTheOldPackageOrTheNewOne) {
    for (const auto format : {StorageFormat::CompoundFile, StorageFormat::Package})
        writeDocument(after_.file(format == StorageFormat::Package ? L"source.7z" : L"source.doc"), format,
                      {{L"a", noise(900)}, {L"d/c", noise(70'000)}, {L"e", "end"}});
    for (unsigned round = 0; cuts_ < wanted() && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        const UnsafeDisk disk;
        const std::wstring file = folder_.file(std::to_wstring(round) + L".7z");
        StorageRef root;
        ASSERT_EQ(root.create(path(file)), S_OK);
        Elements before{{L"none", ""}};
        for (int save = 0; save < 6 && !HasFailure(); ++save) {
            Elements now;
            run(
                file,
                [&] {
                    now = prepare(root, file, save == 0);
                    EXPECT_EQ(root.commit(), S_OK);
                },
                [&](const Left& bytes) {
                    const Elements seen = bytes ? documentOf(*bytes) : Elements{{L"none", ""}};
                    return seen == now || seen == before;
                });
            if (now.empty() && save == 0)
                break; // nothing was ever in it, so nothing is saved
            EXPECT_EQ(documentOf(UnsafeDisk::cut()[file]), now) << "the commit has returned";
            before = now;
        }
        closeForGood(root);
    }
    std::cout << cuts_ << " power cuts, saves " << testing::PrintToString(ways_) << ", left beside "
              << leftBeside_ << '\n';
    EXPECT_THAT(ways_, testing::Each(testing::Gt(0U)));
    EXPECT_GT(leftBeside_, 0U);
    RecordProperty("cuts", static_cast<int>(cuts_));
}

TEST_F(PowerCuts, LeaveTheOldSettingsOrTheNewOnes) {
    const UnsafeDisk disk;
    const std::wstring file = folder_.file(L"settings");
    const std::string first = "[section]\nkey=the first\n";
    std::set<Left> versions{first}; // nothing makes the names wait for the disk
    writeFile(file, first);
    UnsafeDisk::adopt(file, first);
    for (int save = 0; save < 50; ++save) {
        vxio::IniFile settings;
        for (int i = 0; i < 100; ++i)
            settings.SetInt(L"section", L"key " + std::to_wstring(i), save + i);
        run(
            file,
            [&] {
                EXPECT_TRUE(settings.Save(file.c_str()));
                versions.insert(readFile(file));
            },
            [&](const Left& bytes) { return versions.contains(bytes); });
    }
    std::cout << cuts_ << " power cuts\n";
    EXPECT_GT(versions.size(), 50u);
}

} // namespace
