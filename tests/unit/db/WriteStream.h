#pragma once

#include "db/IDataProviderExtended.h"

#include <cstdint>
#include <optional>
#include <string>

/// An endless stream of writes, numbered from 1. The number alone determines what a write does. So the number
/// of completed writes determines what the file must contain.
namespace agent::test::stream {

void perform(db::IDataProviderExtended& provider, std::uint64_t number);

/// The slot that a write goes to; a later write to the same slot replaces it.
std::uint64_t slotOf(std::uint64_t number);
inline constexpr std::uint64_t slotCount = 30;

/// True if a write to the slot first deletes and then inserts: if it is interrupted, the slot may be empty.
bool deletesFirst(std::uint64_t slot);

/// The statement that reads a slot as one text, and the text that a write leaves there.
std::string readStatement(std::uint64_t slot);
std::string expectedText(std::uint64_t number);

/// True if `text` is what a slot holds before its first write: no row, or a row of defaults.
bool isUnwritten(const std::optional<std::string>& text);

} // namespace agent::test::stream
