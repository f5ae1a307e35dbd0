#include "ordak/RequestBody.h"

#include <utility>

namespace agent::ordak {

bool RequestBody::append(const std::string& piece, bool isPaired) {
    if (piece.size() > mostBytes - received) {
        return false;
    }
    received += piece.size();
    if (!isPaired && received > mostUnpairedBytes) {
        drop();
        dropped = true;
    }
    if (dropped) {
        return true;
    }
    if (!reserve(piece.size())) {
        return false;
    }
    bytes += piece;
    return true;
}

std::string RequestBody::take() {
    kept -= bytes.size();
    return std::exchange(bytes, {});
}

bool RequestBody::reserve(std::size_t count) {
    if (kept.fetch_add(count) + count <= mostBytes) {
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
