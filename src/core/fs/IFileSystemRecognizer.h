#pragma once

namespace agent::core::fs {

/// Checks whether a volume holds one kind of file system.
/// Owns:    what it has read of the superblock; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   `recognize` returns false for a volume that can't be read; the log says why.
class IFileSystemRecognizer {
public:
    IFileSystemRecognizer() = default;
    IFileSystemRecognizer(const IFileSystemRecognizer&) = delete;
    IFileSystemRecognizer& operator=(const IFileSystemRecognizer&) = delete;
    IFileSystemRecognizer(IFileSystemRecognizer&&) = delete;
    IFileSystemRecognizer& operator=(IFileSystemRecognizer&&) = delete;
    virtual ~IFileSystemRecognizer() = default;

    /// Reads the volume and returns whether it holds this kind of file system. After true the object is ready
    /// for use. A volume of this kind is recognised even if no block map can be built for it. May be called
    /// again, also after a failure.
    virtual bool recognize() = 0;
};

} // namespace agent::core::fs
