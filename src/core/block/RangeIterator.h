#pragma once

#include "core/block/BlockRangeIterator.h"

#include <cstddef>
#include <iterator>

namespace agent::core::block {

/// The common base (CRTP) of all providers' iterators. The derived class `Iterator` implements `isAtEnd()`,
/// `currentRange()`, which is only called before the end, and `advance()`, which does nothing at the end.
/// Owns:    nothing; the provider must outlive it.
/// Threads: one at a time.
/// Fails:   std::out_of_range, with the provider's name, when dereferenced at the end.
template <typename Iterator, typename Provider>
class RangeIterator {
public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = const BlockRange;
    using difference_type = std::ptrdiff_t;
    using pointer = const BlockRange*;
    using reference = const BlockRange&;

    const BlockRange& operator*() const {
        if (self().isAtEnd()) {
            throwPastTheEnd(provider->name());
        }
        return self().currentRange();
    }
    Iterator& operator++() {
        self().advance();
        return self();
    }
    Iterator operator++(int) {
        Iterator before(self());
        self().advance();
        return before;
    }
    bool operator==(const RangeIterator& other) const {
        const bool atEnd = self().isAtEnd();
        return provider == other.provider && atEnd == other.self().isAtEnd() &&
               (atEnd || self().currentRange() == other.self().currentRange());
    }

protected:
    const Provider* provider;

private:
    friend Iterator;

    explicit RangeIterator(const Provider& provider) : provider(&provider) {}

    [[nodiscard]] Iterator& self() { return static_cast<Iterator&>(*this); }
    [[nodiscard]] const Iterator& self() const { return static_cast<const Iterator&>(*this); }
};

} // namespace agent::core::block
