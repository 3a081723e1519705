#!/usr/bin/env bash
# Proves on a host that Android.bp builds: bpfmt must leave it unchanged; mini-soong turns its
# modules into a Makefile, which builds libkelr and kelctl against AOSP's liblog from Debian
# (android-liblog-dev) and the host modules of the vex, diagnostics and simulated-modem
# stand-ins; then kelctl runs a short bring-up on its embedded modem.
# Usage: scripts/device-build.sh [output directory]   (default: build/device)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
out=${1:-build/device}

unformatted=$(bpfmt -l Android.bp)
if [ -n "${unformatted}" ]; then
  echo "device-build: Android.bp is not as bpfmt formats it (bpfmt -w Android.bp):" >&2
  bpfmt -d Android.bp >&2
  exit 1
fi

# kelctl's version is written in Android.bp for Soong; it must be the project's.
version=$(sed -n 's/^project(kelr VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
if ! grep -qF -- "-DKELCTL_VERSION=\\\"${version}\\\"" Android.bp; then
  echo "device-build: Android.bp does not give kelctl the project's version ${version}" >&2
  exit 1
fi

# mini-soong writes paths relative to where it runs and make builds where it runs: the output
# directory sees the tree through links, so that nothing is written into the tree.
rm -rf "${out}"
mkdir -p "${out}"
out_abs=$(cd "${out}" && pwd)
for entry in Android.bp include src platform tools; do
  ln -s "${root}/${entry}" "${out}/${entry}"
done
# mini-soong writes no variables (sources, flags, libraries) for a cc_binary: its list of them
# is empty for binaries. They are the same as a library's, so the run below fills the list in.
# It builds no fuzz target (it says so, and that is dropped) and nothing for a cc_test.
# It runs with mini-soong's own interpreter (Debian's python3, whatever else is first in PATH).
python=$(sed -n '1s/^#!//p' "$(command -v mini-soong)")
(cd "${out}" && "${python}" -c '
import sys
import mini_soong.builders.cc as cc
from mini_soong.main import run

written = cc.print_vars
cc.print_vars = lambda target, kv, names: written(
    target, kv, names or ["cxxflags", "cflags", "ldflags", "ldlibs", "srcs"])
sys.argv = ["mini-soong", "Android.bp", "Makefile"]
run()
') 2> >(grep -v "cc_fuzz not yet supported" >&2)

multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
android_libdir=/usr/lib/${multiarch}/android
# mini-soong ignores cpp_std (its Makefile says -std=c++11), drops -Werror, and knows no include
# directory for a library found on the system: both are given here, on make's command line.
make_vars=(
  "CXXFLAGS=-std=c++17 -D__STDC_FORMAT_MACROS -D__STDC_CONSTANT_MACROS"
  "CFLAGS=-O2 -fPIC -Werror -fstack-protector-strong -D_FORTIFY_SOURCE=2"
  # A program finds the libraries its libraries need where a device's loader would.
  "LDFLAGS=-Wl,-z,noexecstack -Wl,-z,relro -Wl,--as-needed -Wl,--no-undefined -Wl,-rpath-link,.:${android_libdir}"
  "liblog_SYSTEM_INCLUDES=-isystem /usr/include/android"
  # Where a host kelctl finds the embedded modem's seed: this tree's data/ while it runs in the
  # output directory, else the data installed beside it.
  "CPPFLAGS=-DKELCTL_SOURCE_DATA_DIR=\\\"${root}/data\\\" -DKELCTL_INSTALLED_DATA_DIR=\\\"/usr/share/kelr\\\" -DKELCTL_BUILD_DIR=\\\"${out_abs}\\\" -DKELCTL_BIN_TO_DATA=\\\"../share/kelr\\\""
)
make -C "${out}" -j "$(nproc)" --no-print-directory "${make_vars[@]}" build

# libkelr logs through the system's liblog and carries none of the stand-ins' log code.
needed=$(readelf -d "${out}/libkelr.so" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
for lib in liblog.so.0 libkelr_host_vex.so.0 libkelr_host_diag.so.0; do
  if ! grep -qx "${lib}" <<<"${needed}"; then
    echo "device-build: libkelr.so does not link ${lib}; it links: ${needed//$'\n'/ }" >&2
    exit 1
  fi
done
if nm -D --defined-only "${out}/libkelr.so" | grep -q " __android_log_print$"; then
  echo "device-build: libkelr.so defines __android_log_print itself" >&2
  exit 1
fi

# A device's kelctl has no embedded modem: its sources must compile without the simulated
# modem's headers.
g++ -std=c++17 -fsyntax-only -Wall -Wextra -Werror -Wshadow -Wnon-virtual-dtor \
    -Wno-missing-field-initializers -DKELCTL_NO_EMBEDDED_MODEM \
    '-DKELCTL_SOURCE_DATA_DIR="/vendor/etc/kelr"' '-DKELCTL_INSTALLED_DATA_DIR="/vendor/etc/kelr"' \
    '-DKELCTL_BUILD_DIR="/vendor/bin"' '-DKELCTL_BIN_TO_DATA="../etc/kelr"' \
    "-DKELCTL_VERSION=\"${version}\"" \
    -Iinclude -Iplatform/vex tools/kelctl/*.cpp

# The smoke test: the bring-up of scripts/run.sh, from what mini-soong built. Its results are on
# standard output; the library's log, which AOSP's liblog writes to standard error on a host,
# stays out of them.
result=${out}/bringup.out
log=${out}/bringup.err
show() {
  echo "device-build: $1; kelctl printed:" >&2
  cat "${result}" >&2
  echo "device-build: and on standard error:" >&2
  tail -n 40 "${log}" >&2
  exit 1
}
LD_LIBRARY_PATH="${out}:${android_libdir}" timeout 120 "${out}/kelctl" --embedded \
    run --echo tools/kelctl/bringup.kel >"${result}" 2>"${log}" || show "kelctl's bring-up failed"
for expected in "found 3gpp:2 name=ims apn=ims" "created 3gpp:6 name=kel_profile apn=hotspot" \
                "dropped hotspot: the library deleted 3gpp:6"; do
  grep -qF "${expected}" "${result}" || show "kelctl's bring-up did not print \"${expected}\""
done
if grep -q "^KEL " "${result}"; then
  show "the library's log reached kelctl's standard output"
fi
echo "device-build: Android.bp formatted; libkelr.so and kelctl built with mini-soong against" \
     "${android_libdir}/liblog.so; kelctl's bring-up passed"
