# bash completion of morvane's programs: keys as --help lists them, files behind "KEY=" and elsewhere.
_morvane() {
    local word=${COMP_LINE:0:COMP_POINT}
    word=${word##* }
    if [[ $word == *=* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "${word#*=}")
    else
        local keys
        keys=$("$1" --help 2>/dev/null | sed -n 's/^  \([A-Za-z][A-Za-z0-9_.]*=\).*/\1/p')
        mapfile -t COMPREPLY < <(compgen -W "$keys --help --version" -- "$word"; compgen -f -- "$word")
        compopt -o nospace
    fi
}
complete -o filenames -F _morvane morvane morvane_prepare morvane_check morvane_report morvane_export morvane_synth \
    morvane_score morvane_taylor qas
