// A file of change records that undo a run, the last change first.
#ifndef SOLVANE_TOOL_UNDO_FILE_H
#define SOLVANE_TOOL_UNDO_FILE_H

#include "Files.h"

#include <solvane/ldap/LDAPLdif.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Tool {

/// During a run, the file is a journal: each change is appended as soon as it is made, so that nothing
/// is lost if the run is killed. A comment in its first line says so, and `journalReversed` reads it. At
/// the end, `finish` replaces it by the records in the order to apply them. Not thread-safe.
class UndoFile {
public:
    /// Creates the file with mode 600.
    /// @throws Failure  "usage": there is one already; "output failed"
    explicit UndoFile(std::string path);
    /// Deletes the file if it has no records. Otherwise an unfinished journal remains.
    ~UndoFile();
    UndoFile(UndoFile const&) = delete;
    UndoFile& operator=(UndoFile const&) = delete;

    /// Adds the records that undo one change, in the order to apply them.
    /// @throws Failure  "output failed": the file is as it was before
    void add(std::vector<LDAPLdifRecord> const& records);
    /// Adds a comment about a change that cannot be undone.
    /// @throws Failure  as `add`
    void remark(std::string const& text);
    /// @throws Failure  "output failed": the journal remains
    void finish();

private:
    void append(std::string const& blocks);

    std::string m_path;
    Descriptor m_file;
    off_t m_size = 0;
    bool m_isEmpty = true;
};

/// The journal of a run that was killed, in the order to apply it: a temporary file without a name.
/// Null if the file is not a journal, or cannot be opened. A last record that is not complete is left
/// out.
/// @throws Failure  "configuration": it cannot be read; "output failed"
std::unique_ptr<Descriptor> journalReversed(std::string const& path);

/// Whether the line is the first of a journal, with any end of line.
bool beginsJournal(std::string_view line);

} // namespace Solvane::Tool

#endif
