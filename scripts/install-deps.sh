#!/usr/bin/env bash
# Installs the Debian packages krcommon builds, tests, benchmarks and fuzzes with.
# Idempotent and non-interactive: packages already present are left alone, and
# nothing is fetched when everything is in place.
set -euo pipefail

packages=(
  # build
  build-essential cmake ninja-build pkg-config
  # Debian packages (make package): dpkg-shlibdeps computes their dependencies, on files `file` finds
  dpkg-dev file
  # runtime libraries
  libcurl4-openssl-dev libssl-dev openssl libplist-dev rapidjson-dev libfmt-dev
  libcairo2-dev libpango1.0-dev libpng-dev zlib1g-dev fonts-noto-cjk
  # tests, benchmarks, fuzzing
  googletest libgmock-dev libgtest-dev libbenchmark-dev libcpp-httplib-dev libspdlog-dev
  clang libclang-rt-14-dev
  # a decimal-comma locale, so the tests can check that numbers ignore the locale
  locales
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

sudo=""
if [[ $(id -u) -ne 0 ]]; then sudo="sudo"; fi

if ((${#missing[@]} > 0)); then
  echo "install-deps: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

if ! locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$'; then
  echo "install-deps: compiling the de_DE.UTF-8 locale"
  $sudo localedef -i de_DE -f UTF-8 de_DE.UTF-8
fi
