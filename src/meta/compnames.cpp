// Names of the protocol components that stamp packets. A component id is the
// platform's module id; its component number sits in bits 16-23, so every
// module of one component prints under the same name.
#include "krm_mbuf/mbuf.h"

extern "C" {

constexpr MBUF_COMP_NAME_S g_astMbufCompStru[MBUF_COMP_NAME_NUM] = {
    {120, "LDM"},    {101, "SOCK"},     {36, "LLA"},       {102, "PP4"},   {114, "PP6"},
    {105, "DGNTL"},  {115, "ND"},       {119, "ARP"},      {37, "VRRP"},   {116, "GFD"},
    {124, "PPP"},    {127, "FEI"},      {128, "SFE"},      {168, "DCN"},   {84, "MSTP"},
    {19, "BGP_NM"},  {130, "OSPFV2NM"}, {95, "PPPOEDCN"},  {26, "RSVP"},   {29, "LDPM"},
    {137, "ISISNM"}, {167, "Y1731"},    {83, "DHCP"},      {107, "IPAPP"}, {131, "OSPFV2LSDB"},
    {28, "LDC"},     {27, "LNM"},       {134, "ISISLSDB"}, {72, "LACP"},
};

constexpr const char *g_szMbufStr = "OTHERS";

// The table is searched in its own order and the first match wins, so a
// number listed twice would print under its first name.
MBUF_API const char *MBUF_HOSTDBG_GetCompName(uint32_t ulCompId) {
    const uint32_t ulCompNo = (ulCompId >> 16) & 0xFFu;
    for (const MBUF_COMP_NAME_S &stComp : g_astMbufCompStru) {
        if (stComp.ulCompNo == ulCompNo) {
            return stComp.acName;
        }
    }
    return g_szMbufStr;
}

}  // extern "C"
