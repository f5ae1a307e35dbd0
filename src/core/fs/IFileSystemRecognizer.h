#pragma once

namespace agent::core::fs {

/// Tells whether a volume holds one kind of file system.
/// Owns:    see the implementations.
/// Threads: one at a time; moves the reader's position.
/// Fails:   a volume that can't be read is not recognised; the log says why.
class IFileSystemRecognizer {
public:
    IFileSystemRecognizer() = default;
    IFileSystemRecognizer(const IFileSystemRecognizer&) = delete;
    IFileSystemRecognizer& operator=(const IFileSystemRecognizer&) = delete;
    IFileSystemRecognizer(IFileSystemRecognizer&&) = delete;
    IFileSystemRecognizer& operator=(IFileSystemRecognizer&&) = delete;
    virtual ~IFileSystemRecognizer() = default;

    /// Reads the volume. After true the object knows the file system and is ready for use. A volume of
    /// another kind is not recognised; one of this kind is, even where no map may be made of it. May be asked
    /// again, after a failure as well.
    virtual bool recognize() = 0;
};

} // namespace agent::core::fs
