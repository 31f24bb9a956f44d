#!/usr/bin/env bash
# tools/check-layers.sh [source root]
#
# Fails, listing the offending include lines, when
#  - a host area includes a header of an area that comes after it in LAYERS
#    (QlarCoreGui sits on top and may include any of them), or
#  - a node of the plug-in includes the files of another node. A node's files
#    are its Cnbl/Chnbl class, its Widget (and the form's generated header),
#    and the FFT 1D plot and Image Averaging kernels; anything else in the
#    folder is shared, and ProcessingPlugin lists every node.

# Bottom first: an area may include its own headers and those of the areas
# before it. The folders are host/kernels and host/QlarCore/<area>.
LAYERS=(kernels base records ops packets analysis chain registry camera)

# Includes of another node that the node contract itself asks for.
ALLOWED_NODE_INCLUDES=(
    # CxFFT2DCnbl::channelNameForIndex names the channels of both FFT nodes,
    # in the node and in its panel's channel list.
    "FFT1DCnbl.cpp:FFT2DCnbl.h"
    "FFT1DWidget.cpp:FFT2DCnbl.h"
)

set -u
root="${1:-$(cd "$(dirname "$0")/.." && pwd)}"
cd "$root" || exit 2

areaDir() {
    if [[ $1 == kernels ]]; then echo host/kernels; else echo "host/QlarCore/$1"; fi
}

declare -A rank headerArea
for i in "${!LAYERS[@]}"; do
    area=${LAYERS[$i]}
    dir=$(areaDir "$area")
    rank[$area]=$i
    if [[ ! -d $dir ]]; then
        echo "check-layers: no folder $dir yet; area '$area' holds nothing" >&2
        continue
    fi
    while IFS= read -r h; do
        headerArea[$(basename "$h")]=$area
    done < <(find "$dir" -name '*.h')
done

# Prints "line:header" for every quoted or bracketed include of a file.
includesOf() {
    grep -n -E '^[[:space:]]*#[[:space:]]*include[[:space:]]*[<"][^>"]+[>"]' "$1" \
        | sed -E 's/^([0-9]+):[[:space:]]*#[[:space:]]*include[[:space:]]*[<"]([^>"]+)[>"].*/\1:\2/'
}

failures=()

for area in "${LAYERS[@]}"; do
    own=${rank[$area]}
    [[ -d $(areaDir "$area") ]] || continue
    while IFS= read -r file; do
        while IFS=: read -r line header; do
            target=${headerArea[$(basename "$header")]:-}
            [[ -z $target ]] && continue
            if (( ${rank[$target]} > own )); then
                failures+=("$file:$line: area '$area' includes $header of area '$target' above it")
            fi
        done < <(includesOf "$file")
    done < <(find "$(areaDir "$area")" -name '*.h' -o -name '*.cpp' | sort)
done

plugin=plugins/zdpProcessing
declare -A nodeOf
for f in "$plugin"/*Cnbl.h "$plugin"/*Chnbl.h; do
    [[ -e $f ]] || continue
    node=$(basename "$f" .h)
    node=${node%Cnbl}
    node=${node%Chnbl}
    nodeOf[$node]=1
done

# The node a file of the plug-in belongs to, or nothing for shared files.
nodeOfFile() {
    local name
    name=$(basename "$1")
    name=${name#ui_}
    name=${name%.*}
    for suffix in Cnbl Chnbl Widget Plot Kernels; do
        if [[ $name == *"$suffix" && -n ${nodeOf[${name%"$suffix"}]:-} ]]; then
            echo "${name%"$suffix"}"
            return
        fi
    done
}

for file in $(find "$plugin" -maxdepth 1 \( -name '*.h' -o -name '*.cpp' \) | sort); do
    case $(basename "$file") in ProcessingPlugin.*) continue ;; esac
    own=$(nodeOfFile "$file")
    [[ -z $own ]] && continue
    while IFS=: read -r line header; do
        other=$(nodeOfFile "$header")
        [[ -z $other || $other == "$own" ]] && continue
        allowed=
        for pair in "${ALLOWED_NODE_INCLUDES[@]}"; do
            [[ $pair == "$(basename "$file"):$(basename "$header")" ]] && allowed=1
        done
        [[ -n $allowed ]] && continue
        failures+=("$file:$line: node '$own' includes $header of node '$other'")
    done < <(includesOf "$file")
done

if (( ${#failures[@]} )); then
    printf '%s\n' "${failures[@]}"
    echo "check-layers: ${#failures[@]} include(s) against the layering" >&2
    exit 1
fi
echo "check-layers: host areas and plug-in nodes keep their layering"
