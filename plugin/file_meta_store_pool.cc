#include "file_meta_store_pool.h"

#include <sys/mman.h>

#include <cstdlib>
#include <limits>
#include <new>
#include <stdexcept>

// Under AddressSanitizer, blocks are poisoned while they are free, so that a
// read through a stale handle is reported as it would be with malloc.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TAVO_POOL_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define TAVO_POOL_ASAN 1
#endif
#ifdef TAVO_POOL_ASAN
#include <sanitizer/asan_interface.h>
#define POOL_POISON(block, size) ASAN_POISON_MEMORY_REGION(block, size)
#define POOL_UNPOISON(block, size) ASAN_UNPOISON_MEMORY_REGION(block, size)
#else
#define POOL_POISON(block, size) ((void)(block), (void)(size))
#define POOL_UNPOISON(block, size) ((void)(block), (void)(size))
#endif

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {
namespace internal {

namespace {
constexpr size_t roundUp(size_t bytes, size_t grain) { return (bytes + grain - 1) / grain * grain; }
}  // namespace

void* StorePool::allocate(size_t bytes) {
    size_t size = roundUp(bytes, kGrain);
    if (size > kSmallLimit) return allocateLarge(size);
    FreeBlock*& head = _free[size / kGrain];
    if (head) {
        FreeBlock* block = head;
        POOL_UNPOISON(block, size);
        head = block->next;
        return block;
    }
    if (static_cast<size_t>(_end - _next) >= size) {
        void* block = _next;
        _next += size;
        POOL_UNPOISON(block, size);
        return block;
    }
    return allocateFromNewChunk(size);
}

void StorePool::deallocate(void* block, size_t bytes) noexcept {
    size_t size = roundUp(bytes, kGrain);
    if (size > kSmallLimit) return deallocateLarge(block);
    FreeBlock* freed = static_cast<FreeBlock*>(block);
    freed->next = _free[size / kGrain];
    _free[size / kGrain] = freed;
    POOL_POISON(block, size);
}

void* StorePool::allocateFromNewChunk(size_t size) {
    // Chunks grow from small to large so that a small cache stays small.
    size_t chunkSize = _chunk_size;
    Chunk* chunk;
    if (chunkSize == kMaxChunk) {
        chunk = static_cast<Chunk*>(aligned_alloc(kMaxChunk, kMaxChunk));
        if (!chunk) throw std::bad_alloc();
        madvise(chunk, kMaxChunk, MADV_HUGEPAGE);  // a hint; refusal is fine
    } else {
        chunk = static_cast<Chunk*>(malloc(chunkSize));
        if (!chunk) throw std::bad_alloc();
        _chunk_size *= 2;
    }
    chunk->next = _chunks;
    chunk->size = chunkSize;
    _chunks = chunk;
    // The old chunk's tail is still good for blocks of its own size.
    size_t tail = static_cast<size_t>(_end - _next);
    if (tail >= kGrain) {
        POOL_UNPOISON(_next, tail);
        deallocate(_next, tail);
    }
    _next = reinterpret_cast<char*>(chunk) + roundUp(sizeof(Chunk), kGrain);
    _end = reinterpret_cast<char*>(chunk) + chunkSize;
    POOL_POISON(_next, static_cast<size_t>(_end - _next));
    void* block = _next;
    _next += size;
    POOL_UNPOISON(block, size);
    return block;
}

void* StorePool::allocateLarge(size_t size) {
    LargeBlock* block = static_cast<LargeBlock*>(::operator new(sizeof(LargeBlock) + size));
    block->prev = nullptr;
    block->next = _large;
    if (_large) _large->prev = block;
    _large = block;
    return block + 1;
}

void StorePool::deallocateLarge(void* p) noexcept {
    LargeBlock* block = static_cast<LargeBlock*>(p) - 1;
    if (block->prev) {
        block->prev->next = block->next;
    } else {
        _large = block->next;
    }
    if (block->next) block->next->prev = block->prev;
    ::operator delete(block);
}

void StorePool::release() noexcept {
    while (_chunks) {
        Chunk* next = _chunks->next;
        POOL_UNPOISON(_chunks, _chunks->size);
        free(_chunks);
        _chunks = next;
    }
    while (_large) {
        LargeBlock* next = _large->next;
        ::operator delete(_large);
        _large = next;
    }
    for (FreeBlock*& head : _free) head = nullptr;
    _next = _end = nullptr;
    _chunk_size = kFirstChunk;
}

PoolString PoolString::make(StorePool& pool, std::string_view text) {
    PoolString s;
    if (text.empty()) return s;
    if (text.size() > std::numeric_limits<uint32_t>::max()) throw std::length_error("PoolString");
    uint32_t size = static_cast<uint32_t>(text.size());
    s._rep = static_cast<char*>(pool.allocate(sizeof size + size));
    memcpy(s._rep, &size, sizeof size);
    memcpy(s._rep + sizeof size, text.data(), size);
    return s;
}

void PoolString::destroy(StorePool& pool) noexcept {
    if (!_rep) return;
    pool.deallocate(_rep, sizeof(uint32_t) + view().size());
    _rep = nullptr;
}

}  // namespace internal
}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
