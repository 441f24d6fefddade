// krm-mbuf: inspect, capture and replay packets as they travel between
// processes through the library's wire forms and the host pipe.
#include <cstdio>
#include <vector>

#include "commands.h"
#include "krm_mbuf/mbuf.h"

int main(int argc, char **argv) {
    using namespace krm::tool;
    CLI::App stApp{"krm-mbuf: packets of libkrm_mbuf between processes", "krm-mbuf"};
    stApp.set_version_flag("--version", std::string(g_acMbufVersion));
    std::vector<std::pair<CLI::App *, Run>> vCmds;
    std::vector<Run (*)(CLI::App &)> vAdds = {AddRoad, AddInspect, AddCapture};
#ifdef KRM_TOOL_HAVE_PCAP
    vAdds.push_back(AddTso);
#endif
    for (auto pfAdd : vAdds) {
        const std::size_t ulBefore = stApp.get_subcommands({}).size();
        const Run fRun = pfAdd(stApp);
        const auto vSubs = stApp.get_subcommands({});
        for (std::size_t i = ulBefore; i < vSubs.size(); ++i) {
            vCmds.emplace_back(vSubs[i], fRun);
        }
    }
    stApp.require_subcommand(0, 1);
    try {
        stApp.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return stApp.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return stApp.exit(e);
    } catch (const CLI::CallForVersion &e) {
        return stApp.exit(e);
    } catch (const CLI::ParseError &e) {
        Complain(e.what());
        return kExitBadInput;
    }
    for (auto &[pSub, fRun] : vCmds) {
        if (pSub->parsed()) {
            return fRun();
        }
    }
    // No subcommand: the road with its defaults.
    return vCmds.front().second();
}
