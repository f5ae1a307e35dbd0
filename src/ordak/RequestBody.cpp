#include "ordak/RequestBody.h"

#include <utility>

namespace agent::ordak {

bool RequestBody::append(const std::string& piece, bool isPaired) {
    if (piece.size() > maxBytes - received) {
        return false;
    }
    received += piece.size();
    if (!isPaired && received > maxUnpairedBytes) {
        drop();
        dropped = true;
    }
    if (dropped) {
        return true;
    }
    if (!accountFor(piece.size())) {
        return false;
    }
    bytes += piece;
    return true;
}

std::string RequestBody::take() {
    kept -= bytes.size();
    return std::exchange(bytes, {});
}

bool RequestBody::accountFor(std::size_t count) {
    if (kept.fetch_add(count) + count <= maxBytes) {
        return true;
    }
    kept -= count;
    return false;
}

void RequestBody::drop() noexcept {
    kept -= bytes.size();
    bytes = std::string(); // frees the memory, too
}

} // namespace agent::ordak
