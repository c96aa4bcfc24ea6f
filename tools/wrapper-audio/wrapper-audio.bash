# Completion for wrapper-audio in bash.

# Device ids hold spaces and colons. After a colon bash completes only what follows it.
_wrapper_audio_devices() {
    local current=$1 id typed=
    [[ $current == *:* && $COMP_WORDBREAKS == *:* ]] && typed=${current%"${current##*:}"}
    while IFS= read -r id; do
        [[ ${id,,} == "${current,,}"* ]] && COMPREPLY+=("$(printf '%q' "${id:${#typed}}")")
    done < <(wrapper-audio devices --ids --quiet 2>/dev/null)
}

_wrapper_audio() {
    local line=${COMP_LINE:0:COMP_POINT} command=${COMP_WORDS[1]} current=${COMP_WORDS[COMP_CWORD]}
    local common='--help --quiet --verbose' effects='--denoise --denoise=required --converter --highpass --depop --agc --type --bits --bitrate --quality --no-clobber'
    local pauses='--stop-after-silence --pre-roll --events' speech='--start-on-speech --trim --split'
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W 'devices meter record dictate process doctor help --quiet --verbose --help --version' -- "$current")
        return
    fi
    if [[ $line =~ (--device|-d)[[:space:]]+([^[:space:]]*)$ ]]; then
        _wrapper_audio_devices "${BASH_REMATCH[2]}"
        return
    fi
    case $command:${COMP_WORDS[COMP_CWORD - 1]} in
    *:--rate | *:-r | *:--raw-rate) mapfile -t COMPREPLY < <(compgen -W '8000 16000 22050 24000 44100 48000' -- "$current"); return ;;
    *:--type | *:-t) mapfile -t COMPREPLY < <(compgen -W 'wav flac opus ogg mp3 raw' -- "$current"); return ;;
    *:--bits | *:--raw-bits) mapfile -t COMPREPLY < <(compgen -W '16 24 float' -- "$current"); return ;;
    *:--channel) mapfile -t COMPREPLY < <(compgen -W '1 2 mix all' -- "$current"); return ;;
    *:--bitrate) mapfile -t COMPREPLY < <(compgen -W '16k 32k 64k 96k 128k' -- "$current"); return ;;
    *:--converter) mapfile -t COMPREPLY < <(compgen -W 'clean linear' -- "$current"); return ;;
    *:--seconds | *:--stop-after-silence | *:--pre-roll | *:--strength | *:--highpass | *:--depop | *:--agc | *:--loudness | *:--raw-channels | *:--quality | *:--sync | *:--max-file-time) return ;;
    esac
    if [[ $current == -* ]]; then
        local options=$common
        case $command in
        devices) options+=' --json --ids --all --watch' ;;
        meter) options+=' --device --seconds --json' ;;
        record) options+=" --device --system --both --rate --seconds --max-file-time --sync --fill-gaps --reconnect --split-gaps --undenoised $effects $pauses $speech" ;;
        dictate) options+=" --output --device --rate --seconds --sync $effects $pauses" ;;
        process) options+=" --rate --raw-rate --raw-channels --raw-bits --channel --loudness $effects $pauses $speech" ;;
        doctor) options+=' --device' ;;
        esac
        [[ $line != *" --denoise"* ]] || options+=' --strength'
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    elif [[ $command == record || $command == process || $command == dictate ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
}

complete -F _wrapper_audio wrapper-audio
