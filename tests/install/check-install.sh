#!/usr/bin/env bash
# Installs the build into a temporary DESTDIR as a package would and checks
# what a desktop, a package manager and a shell find there.
set -euo pipefail
build=$1
id=org.evenloud.Evenloud
dest=$(mktemp -d)
trap 'rm -rf "$dest"' EXIT
DESTDIR=$dest cmake --install "$build" --prefix /usr >/dev/null
root=$dest/usr
status=0
fail() { echo "FAIL: $*"; status=1; }

for f in bin/evenloud bin/evenloud-cli libexec/evenloud/evenloud-worker; do
    [ -x "$root/$f" ] || fail "$f is not installed as a program"
done
entry=$root/share/applications/$id.desktop
metainfo=$root/share/metainfo/$id.metainfo.xml
desktop-file-validate "$entry" || fail "desktop-file-validate rejects $id.desktop"
appstreamcli validate --no-net "$metainfo" >/dev/null || {
    appstreamcli validate --no-net "$metainfo"; fail "appstreamcli rejects the metainfo"; }

# What the entry names must be there.
exec=$(sed -n 's/^Exec=\([^ ]*\).*/\1/p' "$entry")
[ -x "$root/bin/$exec" ] || fail "Exec=$exec is not an installed program"
grep -q '^Exec=[^ ]* %F$' "$entry" || fail "Exec does not take files (%F)"
icon=$(sed -n 's/^Icon=//p' "$entry")
[ -f "$root/share/icons/hicolor/scalable/apps/$icon.svg" ] || fail "no scalable icon $icon"
for size in 48 64 128 256; do
    png=$root/share/icons/hicolor/${size}x$size/apps/$icon.png
    if [ ! -f "$png" ]; then fail "no $size px icon"; continue; fi
    # The PNG header's width and height, big-endian at bytes 16..23.
    dims=$(od -An -tu1 -j16 -N8 "$png" | awk '{print $3*256+$4 "x" $7*256+$8}')
    [ "$dims" = "${size}x$size" ] || fail "the $size px icon is $dims"
done
grep -q "<launchable type=\"desktop-id\">$id.desktop</launchable>" "$metainfo" \
    || fail "the metainfo does not launch $id.desktop"

for page in evenloud evenloud-cli; do
    man=$root/share/man/man1/$page.1
    if [ ! -f "$man" ]; then fail "no man page $page.1"; continue; fi
    warnings=$(LC_ALL=C.UTF-8 groff -man -ww -z -Tutf8 "$man" 2>&1)
    [ -z "$warnings" ] || fail "$page.1: $warnings"
    ! grep -q '@[A-Z_]*@' "$man" || fail "$page.1 has an unfilled @VARIABLE@"
done

bash_completion=$root/share/bash-completion/completions/evenloud-cli
[ -f "$bash_completion" ] || fail "no bash completion"
# Offers the long options of the program's own help.
offered=$(bash -c 'source "$1"; COMP_WORDS=(evenloud-cli --); COMP_CWORD=1; _evenloud_cli; printf "%s\n" "${COMPREPLY[@]}"' \
    _ "$bash_completion" | sort)
helped=$("$root/bin/evenloud-cli" --help | grep -o -- '--[a-z-]*' | sort -u)
[ "$offered" = "$helped" ] || fail "bash completion offers $(echo $offered), the help lists $(echo $helped)"
zsh_completion=$(find "$root/share/zsh" -name _evenloud-cli)
[ -n "$zsh_completion" ] || fail "no zsh completion"
fish_completion=$root/share/fish/vendor_completions.d/evenloud-cli.fish
[ -f "$fish_completion" ] || fail "no fish completion"
if command -v zsh >/dev/null; then zsh -n "$zsh_completion" || fail "zsh completion does not parse"; fi
if command -v fish >/dev/null; then fish -n "$fish_completion" || fail "fish completion does not parse"; fi

# The hot folder's user service: the installed program, and a unit systemd accepts.
unit=$root/lib/systemd/user/evenloud-watch@.service
if [ -f "$unit" ]; then
    ! grep -q '@[A-Z_]*@' "$unit" || fail "evenloud-watch@.service has an unfilled @VARIABLE@"
    grep -q "^ExecStart=.* /usr/bin/evenloud-cli\$" "$unit" || fail "evenloud-watch@.service does not run /usr/bin/evenloud-cli"
    if command -v systemd-analyze >/dev/null; then
        cp "$unit" "$dest/evenloud-watch@check.service"
        systemd-analyze verify --man=no "$dest/evenloud-watch@check.service" || fail "systemd-analyze rejects evenloud-watch@.service"
    fi
else
    fail "no systemd user unit evenloud-watch@.service"
fi
[ -f "$root/share/doc/evenloud/examples/evenloud-watch.conf.example" ] || fail "no example of a watch's configuration"

# The installed programs start from the installed tree.
"$root/bin/evenloud-cli" --version >/dev/null || fail "the installed evenloud-cli does not start"
QT_QPA_PLATFORM=offscreen "$root/bin/evenloud" --version >/dev/null || fail "the installed evenloud does not start"
[ $status -eq 0 ] && echo "install tree ok"
exit $status
