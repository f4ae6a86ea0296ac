# bash completion for evenloud-cli
_evenloud_cli()
{
    local cur prev
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD-1]}
    case $prev in
        -o|--output-folder|--watch|--done-folder|--failed-folder)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -d -- "$cur")
            return ;;
        --plot)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -d -- "$cur")
            return ;;
        --files-from|--journal|--cache)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return ;;
        --report)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -X '!*.@(html|pdf|csv)' -- "$cur"; compgen -d -- "$cur")
            return ;;
        --preset)
            mapfile -t COMPREPLY < <(compgen -W 'ebu ebu-s1 atsc streaming podcast replaygain' -- "$cur")
            return ;;
        --meter)
            mapfile -t COMPREPLY < <(compgen -W 'ebur128 loudnorm' -- "$cur")
            return ;;
        -t|--target|-l|--lufs|--true-peak|-j|--jobs|--skip-within|--shard|--settle)
            return ;;  # a number: nothing to offer
    esac
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W '--target --lufs --preset --true-peak --limit-peaks --output-folder
            --replace --preserve-mtime --recursive --jobs --json --analyze --meter --dual-mono --quick --skip-within --plot
            --report --album --tags-only --lossless --undo-lossless --jsonl --files-from --null --journal --shard
            --cache --no-cache --watch --settle --done-folder --failed-folder --help --version' -- "$cur")
        return
    fi
    # Files with the extensions it takes, and folders to walk.
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -X '!*.@(mp3|m4a|mp4|m4v|mov|wma|wav|ac3|flac|mp2|ogg|MP3|M4A|MP4|M4V|MOV|WMA|WAV|AC3|FLAC|MP2|OGG)' -- "$cur"; compgen -d -- "$cur")
}
complete -F _evenloud_cli evenloud-cli
