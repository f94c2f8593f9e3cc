#pragma once

#include "tools/nqrun/descriptor.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nqrun {

/// Where items come from and what separates them.
struct ItemOptions {
    std::optional<std::vector<std::string>> arguments; ///< given after `:::`
    std::vector<std::string> files; ///< given after `::::`; "-" and none: standard input
    char separator = '\n';
    bool asBlocks = false;                         ///< an item is a block of whole lines
    std::size_t blockBytes = std::size_t{1} << 20; ///< of a block, unless a single line is longer
    std::uint64_t blockLines = 0;                  ///< lines in a block; 0: by blockBytes
};

/// One item: what a command is run for.
struct Item {
    std::uint64_t index = 0; ///< counts from 1 over all items, of other shards too
    std::string text;        ///< the item itself, or the content of a block
};

/// Reads items one after the other, never more than a chunk ahead.
///
/// Lines that are empty are skipped, as xargs does; between null bytes and as arguments, items may
/// be empty.
class Items {
public:
    /// Opens nothing yet. Throws Error for a file that is missing, a folder or may not be read.
    explicit Items(ItemOptions options);

    enum class Next {
        Item, ///< here it is
        Wait, ///< descriptor() has to become readable first
        End   ///< there are no more
    };

    /// Throws Error when a file cannot be read.
    Next next(Item& item);

    /// What next() waits for; -1: nothing.
    int descriptor() const;

    /// How many there are, once that is known.
    std::optional<std::uint64_t> total() const;

    /// How many there may be, by the share of the files' bytes that has been read; nothing when
    /// some of them are pipes.
    std::optional<double> estimatedTotal() const;

private:
    Next nextArgument(Item& item);
    bool takeItem(std::string& text);
    bool takeBlock(std::string& text);
    bool takeRest(std::string& text);
    bool openNextFile();
    bool isReadable() const;
    void readChunk();
    void measureFiles();

    ItemOptions mOptions;
    std::size_t mNextFile = 0;
    std::string mFileName; ///< for messages
    Descriptor mOpened;
    int mDescriptor = -1;
    bool mIsRegular = false; ///< the open file, which is always readable
    std::string mBuffer;
    std::size_t mBegin = 0;   ///< of what has not been handed out
    std::size_t mScanned = 0; ///< no separator before this, or, for blocks, none uncounted
    std::uint64_t mLines = 0; ///< of the block so far
    std::uint64_t mCount = 0; ///< items handed out
    bool mIsAtEnd = false;
    std::uint64_t mBytesRead = 0;
    std::optional<std::uint64_t> mBytesInFiles;
};

} // namespace nqrun
