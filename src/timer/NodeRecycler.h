#pragma once

#include <cstddef>
#include <memory>
#include <new>

namespace android {

// Keeps freed single-object blocks of one node-based container for reuse, so that a set whose
// size stays steady (insert one, erase one) stops allocating once warm. Not thread-safe: the
// container's own lock covers it. At most kMaxKept blocks are kept; the rest go back to the heap.
class NodeRecycler {
public:
    static constexpr size_t kMaxKept = 256;

    NodeRecycler() = default;
    NodeRecycler(const NodeRecycler&) = delete;
    NodeRecycler& operator=(const NodeRecycler&) = delete;
    ~NodeRecycler() {
        while (mFree) {
            Block* next = mFree->next;
            ::operator delete(mFree);
            mFree = next;
        }
    }

    void* take(size_t bytes) {
        if (mBlockBytes == 0) mBlockBytes = bytes;
        if (bytes == mBlockBytes && mFree) {
            Block* block = mFree;
            mFree = block->next;
            mKept--;
            return block;
        }
        return ::operator new(bytes < sizeof(Block) ? sizeof(Block) : bytes);
    }

    size_t kept() const { return mKept; }

    void give(void* p, size_t bytes) {
        if (bytes == mBlockBytes && mKept < kMaxKept) {
            mFree = new (p) Block{mFree};
            mKept++;
            return;
        }
        ::operator delete(p);
    }

private:
    struct Block {
        Block* next;
    };
    Block* mFree = nullptr;
    size_t mKept = 0;
    size_t mBlockBytes = 0; // the node size: the first single-object request
};

// std allocator over a NodeRecycler: single objects (the nodes) are recycled, arrays (the
// buckets) come from the heap.
template <typename T>
class RecyclingAllocator {
public:
    using value_type = T;

    explicit RecyclingAllocator(NodeRecycler* recycler) : mRecycler(recycler) {}
    template <typename U>
    RecyclingAllocator(const RecyclingAllocator<U>& other) : mRecycler(other.recycler()) {}

    T* allocate(size_t n) {
        if (n == 1) return static_cast<T*>(mRecycler->take(sizeof(T)));
        return std::allocator<T>().allocate(n);
    }
    void deallocate(T* p, size_t n) {
        if (n == 1) {
            mRecycler->give(p, sizeof(T));
        } else {
            std::allocator<T>().deallocate(p, n);
        }
    }

    NodeRecycler* recycler() const { return mRecycler; }
    template <typename U>
    bool operator==(const RecyclingAllocator<U>& other) const { return mRecycler == other.recycler(); }
    template <typename U>
    bool operator!=(const RecyclingAllocator<U>& other) const { return !(*this == other); }

private:
    NodeRecycler* mRecycler;
};

} // namespace android
