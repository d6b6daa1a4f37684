#!/usr/bin/env bash
# Installs the build tools when they are missing (Debian packages).
set -euo pipefail
need=()
command -v cmake >/dev/null 2>&1 || need+=(cmake)
command -v g++ >/dev/null 2>&1 || need+=(g++)
command -v make >/dev/null 2>&1 || need+=(make)
if [ "${1:-}" = "--tests" ]; then
  [ -e /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
  [ -e /usr/include/gmock/gmock.h ] || need+=(libgmock-dev)
  # The consumer test builds the examples against the installed library.
  command -v pkg-config >/dev/null 2>&1 || need+=(pkg-config)
fi
if [ ${#need[@]} -gt 0 ]; then
  echo "installing: ${need[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${need[@]}"
fi
