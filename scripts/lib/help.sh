# The scripts' --help: the script's opening comment, whose last line names
# the document it belongs to. Sourced first thing; prints it and exits.
script_help() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$1"; }
if [[ " $* " == *" --help "* || ${1-} == -h ]]; then
    script_help "$0"
    exit 0
fi
