// Memory for one node cache store. A cache of a large backup target holds
// millions of small map nodes and 33-byte Drive ids; taking them from the
// general heap one by one costs most of a load's time and a third of its
// memory, so the store carves them from large chunks of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace TAVO {
namespace Backup {
namespace GoogleDriveTA {
namespace internal {

// Blocks of any size, aligned to 8. Small blocks come from chunks and are
// recycled through one free list per size; large ones come from the heap.
// Everything is given back at once by release() or the destructor.
class StorePool {
  public:
    StorePool() = default;
    ~StorePool() { release(); }
    StorePool(StorePool const&) = delete;
    StorePool& operator=(StorePool const&) = delete;

    // At least `bytes` bytes (bytes > 0), aligned to 8. Throws std::bad_alloc.
    void* allocate(size_t bytes);
    // Takes back a block that allocate(bytes) returned, with the same `bytes`.
    void deallocate(void* block, size_t bytes) noexcept;
    // Frees every block at once. Blocks handed out earlier become invalid.
    void release() noexcept;

  private:
    static constexpr size_t kGrain = 8;
    static constexpr size_t kSmallLimit = 512;
    static constexpr size_t kFirstChunk = size_t(16) << 10;
    // The largest chunks are huge pages where the system offers them: a big
    // cache then takes one page fault per 2 MiB instead of one per 4 KiB.
    static constexpr size_t kMaxChunk = size_t(2) << 20;

    struct FreeBlock {
        FreeBlock* next;
    };
    struct Chunk {
        Chunk* next;
        size_t size;
    };
    struct alignas(16) LargeBlock {
        LargeBlock* prev;
        LargeBlock* next;
    };

    void* allocateFromNewChunk(size_t bytes);
    void* allocateLarge(size_t bytes);
    void deallocateLarge(void* block) noexcept;

    FreeBlock* _free[kSmallLimit / kGrain + 1] = {};
    char* _next = nullptr;  // unused tail of the newest chunk
    char* _end = nullptr;
    Chunk* _chunks = nullptr;
    size_t _chunk_size = kFirstChunk;
    LargeBlock* _large = nullptr;
};

// std::allocator interface over a StorePool, for the store's maps and sets.
template <class T>
class PoolAllocator {
  public:
    using value_type = T;
    static_assert(alignof(T) <= 8, "StorePool aligns to 8 bytes");

    explicit PoolAllocator(StorePool* pool) noexcept : _pool(pool) {}
    template <class U>
    PoolAllocator(PoolAllocator<U> const& other) noexcept : _pool(other.pool()) {}

    T* allocate(size_t n) { return static_cast<T*>(_pool->allocate(n * sizeof(T))); }
    void deallocate(T* p, size_t n) noexcept { _pool->deallocate(p, n * sizeof(T)); }
    StorePool* pool() const noexcept { return _pool; }

    template <class U>
    bool operator==(PoolAllocator<U> const& other) const noexcept {
        return _pool == other.pool();
    }
    template <class U>
    bool operator!=(PoolAllocator<U> const& other) const noexcept {
        return _pool != other.pool();
    }

  private:
    StorePool* _pool;
};

// An immutable byte string in a StorePool: one pointer to its length and
// bytes, where std::string takes 32 bytes and a heap block for any id longer
// than 15. The handle does not own its bytes: the store makes and frees them
// explicitly, and release() of the pool drops them all.
class PoolString {
  public:
    PoolString() = default;

    // A copy of `text` in `pool`; the empty string takes no memory.
    // Throws std::bad_alloc, or std::length_error beyond 4 GiB.
    static PoolString make(StorePool& pool, std::string_view text);
    // Gives the bytes back to `pool` and leaves the handle empty.
    void destroy(StorePool& pool) noexcept;

    // Starts fetching the bytes into the cache, for loops that will read
    // many strings scattered over the pool.
    void prefetch() const noexcept { __builtin_prefetch(_rep); }

    std::string_view view() const noexcept {
        if (!_rep) return std::string_view();
        uint32_t size;
        memcpy(&size, _rep, sizeof size);
        return std::string_view(_rep + sizeof size, size);
    }

  private:
    char* _rep = nullptr;  // uint32_t size, then the bytes
};

// Byte-wise order of std::string::compare; transparent, so that lookups by a
// caller's std::string need no copy into the pool.
struct StringLess {
    using is_transparent = void;
    bool operator()(PoolString a, PoolString b) const noexcept { return a.view() < b.view(); }
    bool operator()(PoolString a, std::string_view b) const noexcept { return a.view() < b; }
    bool operator()(std::string_view a, PoolString b) const noexcept { return a < b.view(); }
};

// Key of the (parent id, name) index, and its lookup form.
struct IndexKey {
    PoolString parent;
    PoolString name;
};
struct IndexKeyView {
    std::string_view parent;
    std::string_view name;
};

struct IndexLess {
    using is_transparent = void;
    static bool less(std::string_view p1, std::string_view n1, std::string_view p2,
                     std::string_view n2) noexcept {
        int c = p1.compare(p2);
        return c < 0 || (c == 0 && n1 < n2);
    }
    bool operator()(IndexKey const& a, IndexKey const& b) const noexcept {
        return less(a.parent.view(), a.name.view(), b.parent.view(), b.name.view());
    }
    bool operator()(IndexKey const& a, IndexKeyView const& b) const noexcept {
        return less(a.parent.view(), a.name.view(), b.parent, b.name);
    }
    bool operator()(IndexKeyView const& a, IndexKey const& b) const noexcept {
        return less(a.parent, a.name, b.parent.view(), b.name.view());
    }
};

}  // namespace internal
}  // namespace GoogleDriveTA
}  // namespace Backup
}  // namespace TAVO
