// krm-mbuf: inspect, capture and replay packets as they travel between
// processes through the library's wire forms and the host pipe. The option
// parser lives here alone; each subcommand is a function of its arguments.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include "commands.h"
#include "krm_host/pipe.h"
#include "krm_mbuf/mbuf.h"

namespace krm::tool {
namespace {

// What main() runs when the user picked a subcommand.
using Run = std::function<int()>;

Run AddInspect(CLI::App &stApp) {
    auto pArgs = std::make_shared<InspectArgs>();
    CLI::App *pSub = stApp.add_subcommand(
        "inspect",
        "Decode a TLV stream, serial image, message or saved pipe package (kind and byte "
        "order detected) and print the packet");
    pSub->add_option("file", pArgs->strFile, "input file, - for standard input")
        ->capture_default_str();
    pSub->add_flag("--json", pArgs->bJson, "one JSON document instead of text");
    return [pArgs] { return Inspect(*pArgs); };
}

Run AddCapture(CLI::App &stApp) {
    auto pArgs = std::make_shared<CaptureArgs>();
    CLI::App *pSub = stApp.add_subcommand(
        "capture", "Tap a host pipe and write the packets that pass it as pcapng");
    pSub->add_option("--pipe", pArgs->ulPipe, "pipe identifier")
        ->required()
        ->check(CLI::Range(0u, KRM_HOST_PIPE_MAX - 1));
    pSub->add_option("--out", pArgs->strOut, "pcapng file, - for standard output")->required();
    pSub->add_option(
        "--socket", pArgs->strSocket,
        "socket the writing process connects to (default /tmp/krm-mbuf-pipe<ID>.sock)");
    pSub->add_option("--count", pArgs->ulCount, "stop after this many packets (0: no limit)");
    pSub->add_option("--timeout", pArgs->ulTimeoutS, "stop when nothing came for this many seconds")
        ->capture_default_str();
    return [pArgs] { return Capture(*pArgs); };
}

void AddWayOptions(CLI::App *pSub, RoadArgs &a) {
    pSub->add_option("--via", a.strVia, "pipe (piece lists), message, tlv or image")
        ->check(CLI::IsMember({"pipe", "message", "tlv", "image"}))
        ->capture_default_str();
    pSub->add_option("--packets", a.ulPackets, "packets to send")
        ->check(CLI::Range(1u, 100000u))
        ->capture_default_str();
}

Run AddRoad(CLI::App &stApp) {
    auto pArgs = std::make_shared<RoadArgs>();
    CLI::App *pSub = stApp.add_subcommand(
        "road", "Send packets with records and stamps to a peer process and back (the default)");
    pSub->add_option("--peer", pArgs->strPeer,
                     "native, or ppc: the big-endian build under qemu-ppc")
        ->check(CLI::IsMember({"native", "ppc"}))
        ->capture_default_str();
    pSub->add_option("--peer-exe", pArgs->strPeerExe, "run this krm-mbuf as the peer");
    pSub->add_option("--capture", pArgs->strCapture, "write both directions to this pcapng file");
    pSub->add_option("--save-packages", pArgs->strSaveDir,
                     "save every package this end sends into this directory (for inspect)")
        ->check(CLI::ExistingDirectory);
    AddWayOptions(pSub, *pArgs);

    CLI::App *pPeer = stApp.add_subcommand("peer", "The far end of road (started by road)");
    pPeer->group("");
    pPeer->add_option("--socket", pArgs->strSocket, "the socket road listens on")->required();
    pPeer->add_option("--pipe", pArgs->ulPipe, "the pipe to bind")->check(CLI::Range(0u, 63u));
    pPeer->add_option("--emit", pArgs->ulEmit,
                      "only send this many packets (a writer for capture)");
    pPeer->add_option("--save-packages", pArgs->strSaveDir, "save every package sent here");
    AddWayOptions(pPeer, *pArgs);
    return [pArgs, pPeer] { return pPeer->parsed() ? Peer(*pArgs) : Road(*pArgs); };
}

#ifdef KRM_TOOL_HAVE_PCAP
Run AddTso(CLI::App &stApp) {
    auto pArgs = std::make_shared<TsoArgs>();
    CLI::App *pSub = stApp.add_subcommand(
        "tso", "Segment every TCP packet of a pcap/pcapng whose payload exceeds the MSS");
    pSub->add_option("--mss", pArgs->ulMss, "maximum segment size")
        ->required()
        ->check(CLI::Range(1u, 65535u));
    pSub->add_option("in", pArgs->strIn, "pcap or pcapng to read")->required();
    pSub->add_option("out", pArgs->strOut, "pcapng to write, - for standard output")->required();
    return [pArgs] { return Tso(*pArgs); };
}
#endif

}  // namespace
}  // namespace krm::tool

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
