#!/usr/bin/env bash
# The Debian package: CPack builds it from the build tree, its files are
# unpacked into a temporary root, and a C program builds against them
# twice, with pkg-config and with find_package(krm_mbuf), and runs.
set -eu
build=$1
work=$2
rm -rf "$work" && mkdir -p "$work/root"
cd "$work"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" > cpack.log 2>&1 || { cat cpack.log; exit 1; }
deb=$(ls "$work"/out/*.deb)
dpkg-deb -x "$deb" "$work/root"
contents=$(dpkg-deb -c "$deb")
for want in usr/bin/krm-mbuf /libkrm_mbuf.so.1 /libkrm_platform_host.so include/krm_mbuf/mbuf.h \
            pkgconfig/krm_mbuf.pc cmake/krm_mbuf/krm_mbufConfig.cmake; do
    [[ $contents == *"$want"* ]] || { echo "FAIL: package lacks $want"; exit 1; }
done
prefix="$work/root/usr"
libdir=$(dirname "$(find "$prefix" -name 'libkrm_mbuf.so.1' | head -1)")

cat > main.c <<'C'
#include <stdio.h>
#include <string.h>
#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
int main(void) {
    static const char acText[] = "installed";
    MBUF_S *pstMbuf = MBUF_CreateByCopyBuffer(16, sizeof(acText), acText, 0, 1);
    if (pstMbuf == NULL || MBUF_GetTotalDataLength(pstMbuf) != sizeof(acText)) {
        return 1;
    }
    MBUF_Destroy(pstMbuf);
    printf("%s\n", g_acMbufVersion);
    return KRM_HOST_LiveBufferCount() == 0 ? 0 : 1;
}
C
pc=$(dirname "$(find "$prefix" -name krm_mbuf.pc | head -1)")
PKG_CONFIG_PATH=$pc cc -std=c99 -o by_pkgconfig main.c $(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs krm_mbuf) -lkrm_platform_host
LD_LIBRARY_PATH=$libdir ./by_pkgconfig | grep -q "MBUF_Version 1.1.0" || { echo "FAIL: pkg-config build"; exit 1; }

mkdir -p cm && cat > cm/CMakeLists.txt <<'CM'
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(krm_mbuf REQUIRED)
add_executable(by_cmake ../main.c)
target_link_libraries(by_cmake PRIVATE krm_mbuf::mbuf krm_mbuf::platform_host)
CM
cmake -S cm -B cm/build -G Ninja -DCMAKE_PREFIX_PATH="$prefix" > cmake.log 2>&1 || { cat cmake.log; exit 1; }
cmake --build cm/build > build.log 2>&1 || { cat build.log; exit 1; }
LD_LIBRARY_PATH=$libdir cm/build/by_cmake | grep -q "MBUF_Version 1.1.0" || { echo "FAIL: find_package build"; exit 1; }
LD_LIBRARY_PATH=$libdir "$prefix/bin/krm-mbuf" --version | grep -q "MBUF_Version 1.1.0" || { echo "FAIL: packaged tool"; exit 1; }
echo "package $(basename "$deb"): pkg-config and find_package builds run"
