#pragma once

#include "db/IDataProviderExtended.h"

#include <cstdint>
#include <optional>
#include <string>

/// An endless stream of writes, numbered from 1. What a write does follows from its number alone, so that who
/// knows how many have returned knows what must be in the file.
namespace agent::test::stream {

void perform(db::IDataProviderExtended& provider, std::uint64_t number);

/// The place that a write goes to; later writes to it replace it.
std::uint64_t slotOf(std::uint64_t number);
inline constexpr std::uint64_t slotCount = 30;

/// True if the write deletes what was there before it inserts: when it is cut short, the slot may be empty.
bool deletesFirst(std::uint64_t slot);

/// The statement that reads a slot as one text, and the text that a write leaves there.
std::string readStatement(std::uint64_t slot);
std::string expectedText(std::uint64_t number);

/// True for what a slot holds before its first write: no row, or one with defaults only.
bool isUnwritten(const std::optional<std::string>& text);

} // namespace agent::test::stream
