# Command-level tests of krm-mbuf, driven by shell scripts; included from
# tools/krm-mbuf/CMakeLists.txt.
