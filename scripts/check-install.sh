#!/usr/bin/env bash
# Installs a built tree into a scratch prefix and builds a small consumer against it, once with
# find_package(QtSovaCore 3.11) and once with pkg-config.
set -euo pipefail
build="${1:-build}"
prefix="$(mktemp -d)"
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix/usr" >/dev/null
mkdir -p "$prefix/consumer"
cat > "$prefix/consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(consumer CXX)
find_package(QtSovaCore 3.11 REQUIRED)
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE QtSovaCore::QtSovaCore)
CMAKE
cat > "$prefix/consumer/main.cpp" <<'CPP'
#include <QtSovaCore>
#include <cstdio>
int main()
{
    if (QSova::initialize() != 1)
        return 1;
    std::printf("%s %d\n", QtSovaCoreVersionString(),
                QSova::getIntegerValueFromString(QStringLiteral("nc=2"), QStringLiteral("nc"), 0));
    return QSova::finalize() == 1 ? 0 : 1;
}
CPP
cmake -S "$prefix/consumer" -B "$prefix/consumer/build" -DCMAKE_PREFIX_PATH="$prefix/usr" >/dev/null
cmake --build "$prefix/consumer/build" >/dev/null
LD_LIBRARY_PATH="$prefix/usr/lib:$prefix/usr/lib/x86_64-linux-gnu" "$prefix/consumer/build/consumer"
libdir="$(dirname "$(find "$prefix/usr" -name qtsovacore.pc)")"
PKG_CONFIG_PATH="$libdir" c++ -std=c++17 -fPIC "$prefix/consumer/main.cpp" -o "$prefix/pc-consumer" \
    $(PKG_CONFIG_PATH="$libdir" pkg-config --cflags --libs qtsovacore)
LD_LIBRARY_PATH="$prefix/usr/lib:$libdir/.." "$prefix/pc-consumer"
test -L "$(dirname "$libdir")/libqtsovacore.so.3.11"
echo "install check: CMake package and pkg-config consumers built and ran"
