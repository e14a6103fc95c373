# Sourced by the scripts at the top of the tree: their usage is the comment at their top.

usage()
{
    sed -n '1d; /^#/!q; s/^# \?//p' "scripts/${0##*/}"
}

wrong_usage() # [MESSAGE]
{
    [ $# -eq 0 ] || echo "${0##*/}: $1" >&2
    usage >&2
    exit 2
}

# Ends the script at --help and at an option that is not in NAMES (patterns, separated by blanks). Call it before anything
# else: nothing may be installed or built first. Arguments after -- belong to another program.
options() # NAMES [ARGUMENT]...
{
    local argument name names
    read -ra names <<< "$1"
    shift
    for argument in "$@"; do
        case $argument in
            --) return ;;
            -h | --help) usage; exit 0 ;;
            -?*) ;;
            *) continue ;;
        esac
        for name in "${names[@]}"; do
            # shellcheck disable=SC2053 # a pattern
            [[ ${argument%%=*} != $name ]] || continue 2
        done
        wrong_usage "unknown option $argument"
    done
}
