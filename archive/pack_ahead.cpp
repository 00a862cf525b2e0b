#include "archive/pack_ahead.h"

#include "base/platform.h"

#include <7zCrc.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

namespace Vexel::Storage::Engine {

namespace {

/// What an item costs beside its bytes, as bytes: the encoder clears its tables.
constexpr std::uint64_t kCostOfItem = 0x400;
/// The work, by the same measure, that is worth a thread with an encoder of its own: 2 to 3 ms, where to
/// start and to end one takes 0.7.
constexpr std::uint64_t kCostOfWorker = 0x10000;
/// Each takes up to 9 MiB, whatever the number of processors.
constexpr std::size_t kMostWorkers = 8;

std::uint64_t costOf(const PackAhead::Item& item) noexcept { return item.size + kCostOfItem; }

/// Reads as much as there is, up to `size` bytes.
bool read(::IStream& contents, unsigned char* room, std::size_t size, std::size_t& done) noexcept {
    done = 0;
    if (contents.Seek({}, STREAM_SEEK_SET, nullptr) != S_OK)
        return false;
    while (done < size) {
        ULONG count = 0;
        const HRESULT status = contents.Read(room + done, static_cast<ULONG>(size - done), &count);
        if ((status != S_OK && status != S_FALSE) || count > size - done)
            return false;
        if (count == 0)
            return true;
        done += count;
    }
    return true;
}

bool copy(std::span<const unsigned char> bytes, DynamicBuffer& target) noexcept {
    target.data = static_cast<unsigned char*>(Detail::platform().reallocate(nullptr, bytes.size()));
    if (!target.data)
        return false;
    std::memcpy(target.data, bytes.data(), bytes.size());
    target.size = target.capacity = bytes.size();
    return true;
}

} // namespace

PackAhead::PackAhead(std::span<const Item> items, unsigned threads)
    : workerCount_(usefulWorkers(items, threads)) {
    jobs_.reserve(items.size());
    for (const Item& item : items)
        jobs_.emplace_back(item);
}

PackAhead::~PackAhead() {
    stop();
    for (std::thread& worker : workers_)
        worker.join();
}

std::size_t PackAhead::usefulWorkers(std::span<const Item> items, unsigned threads) noexcept {
    std::uint64_t cost = 0;
    std::size_t count = 0;
    for (const Item& item : items) {
        if (!isFor(item))
            continue;
        cost += costOf(item);
        ++count;
    }
    if (threads < 2 || count < 2)
        return 0;
    return (std::min)(
        {kMostWorkers, std::size_t{threads} - 1, count - 1, static_cast<std::size_t>(cost / kCostOfWorker)});
}

// With fewer workers, or none, the rest does the same.
void PackAhead::start() noexcept {
    try {
        workers_.reserve(workerCount_);
        while (workers_.size() < workerCount_)
            workers_.push_back(Detail::platform().startThread([this] { work(); }));
    } catch (const std::exception&) { // no memory, or no thread
    }
}

void PackAhead::stop() noexcept {
    const Lock lock(monitor_);
    isStopped_ = true;
    room_.tell();
}

void PackAhead::work() noexcept {
    ItemEncoder encoder(settings_);
    Lock lock(monitor_);
    while (!isStopped_ && next_ < jobs_.size()) {
        if (Job* const job = claim())
            packAhead(*job, encoder, lock);
        else if (next_ < jobs_.size())
            room_.wait(monitor_);
    }
}

// The first job that waits, if the window has room for it.
PackAhead::Job* PackAhead::claim() noexcept {
    next_ = (std::max)(next_, reached_);
    while (next_ < jobs_.size() && jobs_[next_].state != State::Waiting)
        ++next_;
    if (isStopped_ || next_ == jobs_.size() || used_ + jobs_[next_].item.size > kWindow)
        return nullptr;
    return &jobs_[next_++];
}

void PackAhead::packAhead(Job& job, ItemEncoder& encoder, Lock& lock) noexcept {
    const auto claimed = static_cast<std::size_t>(job.item.size);
    job.state = State::Packing;
    used_ += claimed;
    lock.unlock();
    const bool isFilled = fill(job, encoder);
    lock.lock();
    used_ -= claimed;
    used_ += job.packed.size;
    job.state = isFilled ? State::Packed : State::Left;
    if (!isFilled)
        isStopped_ = true;
    packed_.tell();
    room_.tell();
}

bool PackAhead::fill(Job& job, ItemEncoder& encoder) const noexcept {
    unsigned char* const room = encoder.room();
    if (!room || !read(*job.item.contents, room, static_cast<std::size_t>(job.item.size), job.size))
        return false;
    job.crc = CrcCalc(room, job.size);
    return encoder.pack(job.size, &isStopped_) == S_OK && copy(encoder.packed(), job.packed);
}

void PackAhead::reach(unsigned index) noexcept {
    if (reached_ == 0)
        start();
    DynamicBuffer former; // goes without the lock
    Lock lock(monitor_);
    if (current_) {
        former = std::move(current_->packed);
        used_ -= former.size;
        current_ = nullptr;
        room_.tell();
    }
    const auto job = std::find_if(jobs_.begin() + static_cast<std::ptrdiff_t>(reached_), jobs_.end(),
                                  [index](const Job& candidate) { return candidate.item.index == index; });
    if (job == jobs_.end()) {
        // Not announced, or out of order: a worker may have it.
        isStopped_ = true;
        room_.tell();
        while (std::any_of(jobs_.begin(), jobs_.end(),
                           [](const Job& candidate) { return candidate.state == State::Packing; }))
            packed_.wait(monitor_);
        return;
    }
    current_ = &*job;
    reached_ = static_cast<std::size_t>(job - jobs_.begin()) + 1;
    if (job->state == State::Waiting)
        job->state = State::Left;
    while (job->state == State::Packing) {
        if (Job* const other = claim())
            packAhead(*other, own_, lock);
        else
            packed_.wait(monitor_);
    }
}

HRESULT PackAhead::pack(std::size_t size, std::span<const unsigned char>& packed) noexcept {
    if (current_ && current_->state == State::Packed && current_->size == size &&
        current_->crc == CrcCalc(own_.room(), size)) {
        packed = {current_->packed.data, current_->packed.size};
        return S_OK;
    }
    const HRESULT status = own_.pack(size, nullptr);
    packed = own_.packed();
    return status;
}

} // namespace Vexel::Storage::Engine
