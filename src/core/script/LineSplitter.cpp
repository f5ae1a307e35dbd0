#include "core/script/LineSplitter.h"

namespace agent::core::script {

void LineSplitter::add(std::string_view piece, const LineFunction& lineEnded) {
    for (;;) {
        const std::size_t newline = piece.find('\n');
        keep(piece.substr(0, newline));
        if (newline == std::string_view::npos) {
            return;
        }
        if (afterBackslash) {
            keep("\n");
        } else {
            lineEnded(pending);
            pending.clear();
        }
        piece.remove_prefix(newline + 1);
    }
}

void LineSplitter::keep(std::string_view part) {
    if (!part.empty()) {
        afterBackslash = part.back() == '\\';
        pending.append(part.substr(0, maxLineBytes - pending.size()));
    }
}

} // namespace agent::core::script
