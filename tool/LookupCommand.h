// The "lookup" command: prints the entries found for each address.
#ifndef SOLVANE_TOOL_LOOKUP_COMMAND_H
#define SOLVANE_TOOL_LOOKUP_COMMAND_H

#include "Command.h"
#include "Options.h"

namespace Solvane::Tool {

class LookupCommand final : public Command {
public:
    char const* name() const override { return "lookup"; }
    char const* description() const override
    {
        return "Look up each address in a directory and print its entries";
    }
    void declareOn(CLI::App& app) override;
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    LDAPLookup::Settings settings(CommonOptions const& common, Secret& password) const;

    SettingOptions m_settings;
    KeyOptions m_keys;
    std::optional<unsigned int> m_noUser; ///< exit status for "not found"
    bool m_isSingle = false;              ///< more than one entry for a key is an error
    bool m_goesOn = false;                ///< accepted; lookups always continue
};

} // namespace Solvane::Tool

#endif
