#include "testkit/fault_alloc.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

namespace vxtest {

struct FaultAllocator::Blocks {
    std::mutex lock;  // worker threads may allocate too
    std::unordered_map<void *, size_t> sizes;
    size_t liveBytes = 0;
};

FaultAllocator::FaultAllocator(bool withRealloc) : blocks_(new Blocks)
{
    StdGetAllocator(&previous_);
    StdAllocator self{Alloc, withRealloc ? Realloc : nullptr, Free, Trim, this};
    StdSetAllocator(&self);
}

FaultAllocator::~FaultAllocator()
{
    StdSetAllocator(&previous_);
    for (auto &[block, size] : blocks_->sizes)
        std::free(block);
    delete blocks_;
}

void FaultAllocator::FailAt(int64_t n, FailMode mode)
{
    allocations_ = 0;
    failures_ = 0;
    failAt_ = n;
    mode_ = mode;
}

void FaultAllocator::Disarm() { FailAt(0, FailMode::Once); }

size_t FaultAllocator::LiveBytes() const
{
    std::lock_guard guard(blocks_->lock);
    return blocks_->liveBytes;
}

size_t FaultAllocator::LiveBlocks() const
{
    std::lock_guard guard(blocks_->lock);
    return blocks_->sizes.size();
}

bool FaultAllocator::ShouldFail()
{
    ++allocations_;
    bool fail = failAt_ > 0 &&
                (mode_ == FailMode::Once ? allocations_ == failAt_ : allocations_ >= failAt_);
    if (fail)
        ++failures_;
    return fail;
}

void *FaultAllocator::Alloc(void *user, size_t size)
{
    auto *self = static_cast<FaultAllocator *>(user);
    std::lock_guard guard(self->blocks_->lock);
    if (self->ShouldFail())
        return nullptr;
    void *block = std::calloc(1, size ? size : 1);
    self->blocks_->sizes[block] = size;
    self->blocks_->liveBytes += size;
    return block;
}

void *FaultAllocator::Realloc(void *user, void *block, size_t oldSize, size_t newSize)
{
    auto *self = static_cast<FaultAllocator *>(user);
    std::lock_guard guard(self->blocks_->lock);
    if (self->ShouldFail())
        return nullptr;
    auto it = self->blocks_->sizes.find(block);
    if (it == self->blocks_->sizes.end() || it->second != oldSize) {
        ++self->badFrees_;
        return nullptr;
    }
    // A fresh block each time, so that a stale pointer to the old one shows under ASan.
    void *moved = std::malloc(newSize);
    std::memset(moved, 0xEE, newSize);
    std::memcpy(moved, block, oldSize < newSize ? oldSize : newSize);
    std::free(block);
    self->blocks_->sizes.erase(it);
    self->blocks_->sizes[moved] = newSize;
    self->blocks_->liveBytes += newSize - oldSize;
    return moved;
}

void FaultAllocator::Trim(void *user) { ++static_cast<FaultAllocator *>(user)->trims_; }

void FaultAllocator::Free(void *user, void *block, size_t size)
{
    auto *self = static_cast<FaultAllocator *>(user);
    std::lock_guard guard(self->blocks_->lock);
    auto it = self->blocks_->sizes.find(block);
    if (it == self->blocks_->sizes.end() || it->second != size) {
        ++self->badFrees_;
        return;
    }
    self->blocks_->liveBytes -= size;
    self->blocks_->sizes.erase(it);
    std::free(block);
}

}  // namespace vxtest
