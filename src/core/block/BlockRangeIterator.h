#pragma once

#include "core/block/BlockRange.h"

#include <cstddef>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace agent::core::block {

/// A position in a sequence of values that are computed during iteration.
/// Owns:    the iteration state of its implementation; the sequence must outlive it.
/// Threads: one at a time.
/// Fails:   `increment` may throw anything; `dereference` throws std::out_of_range at the end.
template <typename Value>
class iterator_base {
public:
    iterator_base() = default;
    iterator_base(const iterator_base&) = delete;
    iterator_base& operator=(const iterator_base&) = delete;
    iterator_base(iterator_base&&) = delete;
    iterator_base& operator=(iterator_base&&) = delete;
    virtual ~iterator_base() = default;

    /// An independent copy at the same position.
    [[nodiscard]] virtual std::unique_ptr<iterator_base> clone() const = 0;
    virtual void increment() = 0;
    [[nodiscard]] virtual const Value& dereference() const = 0;
    /// Throws std::bad_cast if `other` has another type.
    [[nodiscard]] virtual bool equals(const iterator_base& other) const = 0;
};

/// Adapts an ordinary iterator to iterator_base.
/// Owns:    the iterator; its container must outlive it.
/// Threads: one at a time.
/// Fails:   throws what the iterator throws; `equals` throws std::bad_cast for another type.
template <typename Iterator, typename Value>
class iterator_base_t final : public iterator_base<Value> {
public:
    explicit iterator_base_t(Iterator iterator) : iterator(std::move(iterator)) {}

    [[nodiscard]] std::unique_ptr<iterator_base<Value>> clone() const override {
        return std::make_unique<iterator_base_t>(iterator);
    }
    void increment() override { ++iterator; }
    [[nodiscard]] const Value& dereference() const override { return *iterator; }
    [[nodiscard]] bool equals(const iterator_base<Value>& other) const override {
        return iterator == dynamic_cast<const iterator_base_t&>(other).iterator;
    }

private:
    Iterator iterator;
};

/// A forward iterator over values that an iterator_base computes.
/// Owns:    the iterator_base; a copy has a clone of it.
/// Threads: one at a time.
/// Fails:   throws what the iterator_base throws. Without one, every use except copying throws
///          std::bad_alloc.
template <typename Value>
class iterator_handle {
public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Value;
    using difference_type = std::ptrdiff_t;
    using pointer = const Value*;
    using reference = const Value&;

    iterator_handle() = default;
    explicit iterator_handle(std::unique_ptr<iterator_base<Value>> iterator) noexcept
        : iterator(std::move(iterator)) {}
    iterator_handle(const iterator_handle& other)
        : iterator(other.iterator ? other.iterator->clone() : nullptr) {}
    iterator_handle& operator=(const iterator_handle& other) {
        iterator = iterator_handle(other).iterator;
        return *this;
    }
    iterator_handle(iterator_handle&&) noexcept = default;
    iterator_handle& operator=(iterator_handle&&) noexcept = default;
    ~iterator_handle() = default;

    explicit operator bool() const noexcept { return iterator != nullptr; }

    reference operator*() const { return use().dereference(); }
    pointer operator->() const { return &use().dereference(); }
    iterator_handle& operator++() {
        use().increment();
        return *this;
    }
    iterator_handle operator++(int) {
        iterator_handle before(*this);
        ++*this;
        return before;
    }
    bool operator==(const iterator_handle& other) const { return use().equals(other.use()); }

private:
    [[nodiscard]] iterator_base<Value>& use() const {
        if (!iterator) {
            throw std::bad_alloc();
        }
        return *iterator;
    }

    std::unique_ptr<iterator_base<Value>> iterator;
};

using BlockRangeIterator = iterator_handle<BlockRange>;

/// Wraps an ordinary iterator over ranges in a handle.
template <typename Iterator>
BlockRangeIterator handleOf(Iterator iterator) {
    return BlockRangeIterator(std::make_unique<iterator_base_t<Iterator, BlockRange>>(std::move(iterator)));
}

/// Throws the std::out_of_range of an iterator that is dereferenced at the end of its provider.
[[noreturn]] void throwPastTheEnd(const std::string& providerName);

} // namespace agent::core::block
