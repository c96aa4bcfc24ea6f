// Buffers that end (or begin) at a page which may not be touched, so that a single element too far is a crash.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>

enum class guard { behind, before };

template <typename T>
class guarded_buffer {
public:
    explicit guarded_buffer(std::size_t count, guard side = guard::behind) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t bytes = count * sizeof(T);
        const std::size_t room = (bytes + page - 1) / page * page;
        size_ = room + 2 * page;
        map_ = mmap(nullptr, size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map_ == MAP_FAILED) std::abort();
        std::byte* start = static_cast<std::byte*>(map_) + page;
        if (room > 0) mprotect(start, room, PROT_READ | PROT_WRITE);
        data_ = reinterpret_cast<T*>(side == guard::behind ? start + (room - bytes) : start);
    }
    ~guarded_buffer() { munmap(map_, size_); }
    guarded_buffer(const guarded_buffer&) = delete;
    guarded_buffer& operator=(const guarded_buffer&) = delete;

    T* data() { return data_; }
    T& operator[](std::size_t i) { return data_[i]; }

private:
    void* map_ = nullptr;
    std::size_t size_ = 0;
    T* data_ = nullptr;
};
