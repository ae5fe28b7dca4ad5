# shellcheck shell=bash
# What the scripts that try the package share. To be sourced after common.sh.

# shellcheck disable=SC2034  # those who source this use them
{
    UNIT=/lib/systemd/system/voxstat.service
    CONFIG=/etc/voxstat/voxstat.cfg
    STATS=/var/lib/voxstat/stats
}

say() { printf -- '-- %s\n' "$*"; }
skip() { printf -- '-- SKIPPED: %s\n' "$*"; }

# expect WHAT COMMAND...: the command must succeed.
expect() {
    "${@:2}" || die "does not hold: $1"
    say "$1"
}

of_unit() { sed -n "s/^$2=//p" "$1$UNIT"; } # of_unit ROOT SETTING
