# What the scripts share that compile for Windows. Sourced by them.

# output_folder ARGUMENT...
# The one folder that a script is given, made if need be; its full path is left in `out`.
output_folder() {
    if [ $# -ne 1 ]; then
        echo "usage: $0 OUTPUT_DIRECTORY" >&2
        exit 2
    fi
    mkdir -p "$1"
    out=$(cd "$1" && pwd)
}

# compile_all OBJECTS SOURCE...
# Compiles each source into the folder OBJECTS with the command in the array `compiler`, and leaves the objects' names
# there, in the order of the sources, in the array `compiled`. KVR_JOBS sets how many compilers run at once.
compile_all() {
    local objects=$1 source
    shift
    mkdir -p "$objects"
    compiled=("${@//\//_}")
    compiled=("${compiled[@]/%/.o}")
    for source in "$@"; do
        printf '%s\0' "$source" -o "$objects/${source//\//_}.o"
    done | xargs -0 -n 3 -P "${KVR_JOBS:-$(nproc)}" "${compiler[@]}" -c
}
