/// @file
/// Lists that drop their oldest items when they grow too long or too old, for recordings, snapshots
/// and logs, and the rolling file names of what goes into them. One thread at a time uses an
/// object. Nothing here logs.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include <kest/utils/api.h>

/// What a RollingList keeps.
class KEST_API IRollingListItem {
  public:
    virtual ~IRollingListItem();

    /// The moment at which the item came into being, in milliseconds on the scale of nowMs(); not a
    /// duration.
    virtual uint64_t age() const = 0;
};

/// A file on disk.
class KEST_API RollingListItemFile : public IRollingListItem {
  public:
    /// An item that came into being now.
    RollingListItemFile(const std::string& path, bool deleteOnDestroy);
    /// @param timestamp  milliseconds on the scale of nowMs().
    RollingListItemFile(const std::string& path, uint64_t timestamp, bool deleteOnDestroy);

    RollingListItemFile(const RollingListItemFile&) = delete;
    RollingListItemFile& operator=(const RollingListItemFile&) = delete;

    /// Removes the file when the item was made with `deleteOnDestroy`; a failure is ignored.
    ~RollingListItemFile() override;

    uint64_t age() const override;
    /// As it was given.
    const std::string& path() const { return path_; }

  private:
    std::string path_;
    uint64_t timestamp_;
    bool deleteOnDestroy_;
};

/// Items in the order of their arrival, which it owns.
///
/// Only the front is ever looked at: items are taken to arrive in the order of their stamps, and a
/// younger item in front shields older ones behind it. The destructor of an item may call back into
/// its list; the item is out of the list by then.
class KEST_API RollingList {
  public:
    RollingList() = default;
    RollingList(const RollingList&) = delete;
    RollingList& operator=(const RollingList&) = delete;

    /// Destroys all items.
    virtual ~RollingList();

    /// Most items to keep; 0 means any number.
    virtual void limitListSize(int n);

    /// Greatest age in milliseconds; 0 means any. Ignored when it is below the minimum age that was
    /// set before.
    virtual void limitItemMaxAge(int ms);

    /// Age in milliseconds below which no item is dropped for the sake of the size; 0 means none.
    /// Ignored when it is above the maximum age that was set before.
    virtual void limitItemMinAge(int ms);

    /// Drops what is too much or too old. Limits apply at the next call of this or of append().
    /// @return true.
    virtual bool service();

    /// Number of items.
    virtual int count() const;

    /// The items, oldest first. Add and remove through the members of this class only.
    virtual std::list<IRollingListItem*>& list();

    /// Destroys the oldest item, if there is one.
    virtual void deleteFront();

    /// Destroys all items, those included that their destructors add meanwhile.
    virtual void clear();

    /// Adds an item at the back, takes it over, and calls service().
    /// @return its result; false for null, which is not added.
    bool append(IRollingListItem* item);

  private:
    KEST_LOCAL bool isYounger(const IRollingListItem& item, int ms) const;

    int maxSize_ = 0;
    int maxAge_ = 0;
    int minAge_ = 0;
    std::list<IRollingListItem*> items_;
    int count_ = 0;
};

/// A RollingList of files.
class KEST_API RollingFileList : public RollingList {
  public:
    /// @param deleteFiles  remove the file of each item that is dropped or destroyed.
    explicit RollingFileList(bool deleteFiles);

    using RollingList::append;

    /// Adds a file that came into being now.
    bool append(const std::string& path);

  private:
    bool deleteFiles_;
};

/// Numbered file names for resources such as snapshots, in one folder, the number rolling over at a
/// limit: "snap-000.jpg" ... "snap-499.jpg", "snap-000.jpg". All numbers have the same width, so
/// that names sort in the order of their numbers.
///
/// Beside a RollingFileList that deletes, give it more names than the list ever holds: a name used
/// again while its first item is listed is deleted with that item, the new file under it.
///
/// @code
///     ResourceFilenameRoller roller("/tmp/snapshots", "snap-", ".jpg", 500);
///     roller.cleanCwd();                       // what an earlier run left behind
///     write(roller.getPath(), picture);
///     roller.incrementFilename();
/// @endcode
class KEST_API ResourceFilenameRoller {
  public:
    /// Starts at number 0; touches nothing.
    /// @param folder  where the files are; empty means the current working directory.
    /// @param limit   how many numbers there are; 0 counts as 1.
    ResourceFilenameRoller(std::string folder, std::string prefix, std::string suffix,
                           unsigned limit);

    /// The current name, without the folder.
    std::string getFilename() const;

    /// The current name with its folder.
    std::string getPath() const;

    /// Goes on to the next number.
    void incrementFilename();

    /// Removes the files in the folder that bear any name this roller can give; others stay. Starts
    /// at number 0 again.
    /// @return how many were removed, or -1 when at least one could not be, with `errno`.
    int cleanCwd();

  private:
    KEST_LOCAL std::string filename(unsigned number) const;
    KEST_LOCAL bool isOurs(const std::string& entry) const;
    KEST_LOCAL std::string path(const std::string& name) const;

    std::string folder_;
    std::string prefix_;
    std::string suffix_;
    unsigned limit_;
    unsigned number_ = 0;
};
