#pragma once

#include <cstdint>
#include <functional>
#include <optional>

/// Finds out whether a device whose reads fail is damaged, or answers no more. Used by one thread
/// at a time.
class DeviceWatch {
public:
    /// Reads the sector at this offset without any recovery. Whether that succeeded.
    using ReadSector = std::function<bool(std::uint64_t offset)>;

    /// `size`: of the device when it was opened, in bytes.
    explicit DeviceWatch(std::uint64_t size)
        : size_(size)
    {
    }

    /// Bytes were read from the sector at `offset`.
    void noteSuccess(std::uint64_t offset);
    /// A read of the open device failed with this error number; 0 when it gave nothing. Asks the
    /// system for the device and now and then reads again what has been read well.
    void noteFailure(int error, int descriptor, const ReadSector& read);

    /// Whether it answers no more. That stays so.
    bool hasLeft() const { return hasLeft_; }
    /// Grows whenever the device has shown that it answers. What failed while this stayed the same
    /// may have failed because the device had gone.
    std::uint64_t answers() const { return answers_; }

private:
    bool isStillThere(int error, int descriptor) const;
    bool canStillRead(const ReadSector& read) const;

    const std::uint64_t size_;
    std::uint64_t answers_ = 0;
    std::uint64_t failuresInARow_ = 0;
    /// Sectors that were read well: two, as the damage may have come to one of them.
    std::optional<std::uint64_t> firstGood_, lastGood_;
    bool hasLeft_ = false;
};
