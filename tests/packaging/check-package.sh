#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
#
# Builds the .deb from a configured and built tree and checks it:
#   check-package.sh BUILD_DIR VERSION
# lintian (no error, no warning left unexplained), desktop-file-validate, appstreamcli, the
# file list with owners and modes (helpers root-owned, nothing setuid, no test data), the
# control fields, and stripped binaries. Fails loudly when a tool is missing.
set -euo pipefail

build="$1"
version="$2"
for tool in cpack dpkg-deb dpkg-shlibdeps lintian desktop-file-validate appstreamcli file; do
    command -v "$tool" >/dev/null || { echo "check-package: $tool is missing (run scripts/install-deps)" >&2; exit 1; }
done

scratch="$(mktemp -d /tmp/bonkwell-package.XXXXXX)"
trap 'rm -rf "$scratch"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

cpack --config "$build/CPackConfig.cmake" -B "$scratch/out" >"$scratch/cpack.log" 2>&1 || {
    cat "$scratch/cpack.log" >&2; echo "check-package: cpack failed" >&2; exit 1; }
arch="$(dpkg --print-architecture)"
deb="$scratch/out/bonkwell_${version}_${arch}.deb"
[ -f "$deb" ] || { ls -l "$scratch/out" >&2; echo "check-package: no $(basename "$deb")" >&2; exit 1; }
echo "built $(basename "$deb") ($(stat -c %s "$deb") bytes)"

# --- control fields
field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = bonkwell ] || fail "Package is '$(field Package)'"
[ "$(field Version)" = "$version" ] || fail "Version is '$(field Version)'"
[ "$(field Architecture)" = "$arch" ] || fail "Architecture is '$(field Architecture)'"
[ "$(field Recommends)" = "pkexec, gnome-shell-extension-appindicator" ] ||
    fail "Recommends is '$(field Recommends)'"
depends="$(field Depends)"
for lib in libc6 libqt6core6 libqt6widgets6 libqt6network6 libsdl2-mixer-2.0-0; do
    grep -Eq "(^|, )$lib( |,|$)" <<<"$depends" || fail "Depends lacks $lib: $depends"
done
grep -q policykit-1 <<<"$depends, $(field Recommends)" && fail "refers to the obsolete policykit-1"

# --- files, owners and modes
dpkg-deb -c "$deb" >"$scratch/contents"
awk '{print $6}' "$scratch/contents" | sed -e 's|^\./|/|' -e 's|/$||' | sort >"$scratch/paths"
expected=(
    /usr/bin/bonkwell
    /usr/libexec/bonkwell/Helpers/thuzz-detector
    /usr/libexec/bonkwell/Helpers/bonkwell-helper-setup
    /usr/share/applications/com.bonkwell.Bonkwell.desktop
    /usr/share/icons/hicolor/scalable/apps/com.bonkwell.Bonkwell.svg
    /usr/share/icons/hicolor/symbolic/apps/com.bonkwell.Bonkwell-symbolic.svg
    /usr/share/icons/hicolor/48x48/apps/com.bonkwell.Bonkwell.png
    /usr/share/icons/hicolor/64x64/apps/com.bonkwell.Bonkwell.png
    /usr/share/icons/hicolor/128x128/apps/com.bonkwell.Bonkwell.png
    /usr/share/metainfo/com.bonkwell.Bonkwell.metainfo.xml
    /usr/share/polkit-1/actions/com.bonkwell.Bonkwell.policy
    /usr/share/man/man1/bonkwell.1.gz
    /usr/share/doc/bonkwell/copyright
    /usr/share/doc/bonkwell/changelog.gz
)
for path in "${expected[@]}"; do
    grep -qx "$path" "$scratch/paths" || fail "missing $path"
done
for pack in Pain Sexy Halo Lizard; do
    count="$(grep -c "^/usr/share/bonkwell/SoundPacks/$pack/.*\.mp3$" "$scratch/paths" || true)"
    [ "$count" -ge 1 ] || fail "no clips of the $pack pack"
done
grep -Ev '^/(usr|usr/bin(/bonkwell)?|usr/libexec(/bonkwell(/Helpers(/.*)?)?)?|usr/share(/.*)?)$' "$scratch/paths" |
    grep -v '^$' | sed 's/^/unexpected path: /' >"$scratch/stray" || true
[ -s "$scratch/stray" ] && { cat "$scratch/stray" >&2; fail "files outside /usr/bin, /usr/libexec/bonkwell, /usr/share"; }
grep -Eiq '(tests?/|\.csv$|umockdev|/data/)' "$scratch/paths" && fail "test data in the package: $(grep -Ei '(tests?/|\.csv$|umockdev|/data/)' "$scratch/paths" | head -3)"
awk '$2 != "root/root" {print "not root-owned: " $0}' "$scratch/contents" >"$scratch/owners"
[ -s "$scratch/owners" ] && { cat "$scratch/owners" >&2; fail "files not owned by root"; }
awk 'substr($1,4,1) ~ /[sS]/ || substr($1,7,1) ~ /[sS]/ {print "setuid/setgid: " $0}' "$scratch/contents" >"$scratch/setuid"
[ -s "$scratch/setuid" ] && { cat "$scratch/setuid" >&2; fail "setuid or setgid files in the package"; }
mode_of() { awk -v p="./${1#/}" '$6 == p {print $1}' "$scratch/contents"; }
for exe in /usr/bin/bonkwell /usr/libexec/bonkwell/Helpers/thuzz-detector \
           /usr/libexec/bonkwell/Helpers/bonkwell-helper-setup; do
    [ "$(mode_of "$exe")" = "-rwxr-xr-x" ] || fail "$exe has mode $(mode_of "$exe"), not -rwxr-xr-x"
done
awk '$1 ~ /^-/ && $6 !~ /^\.\/usr\/(bin|libexec)\// && $1 != "-rw-r--r--" {print "odd mode: " $0}' \
    "$scratch/contents" >"$scratch/modes"
[ -s "$scratch/modes" ] && { cat "$scratch/modes" >&2; fail "data files not 0644"; }

# --- the unpacked files
dpkg-deb -x "$deb" "$scratch/root"
for exe in usr/bin/bonkwell usr/libexec/bonkwell/Helpers/thuzz-detector \
           usr/libexec/bonkwell/Helpers/bonkwell-helper-setup; do
    file -b "$scratch/root/$exe" | grep -q ', stripped' || fail "$exe is not stripped: $(file -b "$scratch/root/$exe")"
done
desktop-file-validate "$scratch/root/usr/share/applications/com.bonkwell.Bonkwell.desktop" ||
    fail "desktop-file-validate"
appstreamcli validate --no-net --pedantic \
    "$scratch/root/usr/share/metainfo/com.bonkwell.Bonkwell.metainfo.xml" || fail "appstreamcli validate"
for size in 48 64 128; do
    png="$scratch/root/usr/share/icons/hicolor/${size}x${size}/apps/com.bonkwell.Bonkwell.png"
    file -b "$png" | grep -q "PNG image data, $size x $size, 8-bit/color RGBA" ||
        fail "the ${size} px icon is $(file -b "$png")"
done
zcat "$scratch/root/usr/share/man/man1/bonkwell.1.gz" | grep -q '^\.TH BONKWELL 1' || fail "man page"
grep -q '^Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/' \
    "$scratch/root/usr/share/doc/bonkwell/copyright" || fail "copyright is not DEP-5"

# --- lintian: errors and warnings fail; overridden tags are listed
if ! lintian --fail-on error,warning --show-overrides --tag-display-limit 0 --display-info "$deb" \
        >"$scratch/lintian.log" 2>&1; then
    cat "$scratch/lintian.log" >&2
    fail "lintian reports errors or warnings"
else
    cat "$scratch/lintian.log"
fi

if [ "$failures" -gt 0 ]; then
    echo "check-package: $failures check(s) failed" >&2
    exit 1
fi
echo "check-package: all checks passed"
