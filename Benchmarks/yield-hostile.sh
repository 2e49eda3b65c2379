# Read by yield: makes "image" with beginnings whose bodies are lost and what lies in their place by now, and "manifest" with the
# offsets, sizes, hashes and names of the files that are whole.
# shellcheck shell=bash
"$root/script/bootstrap" hostile
samples=$root/Tests/Samples
MiB=1048576
position=0 # what is put goes here
: >manifest

put() { # file
    dd if="$1" of=image bs=64K seek=$position oflag=seek_bytes conv=notrunc status=none
}
plant() { # file
    printf '%d\t%d\t%s\t%s\n' $position "$(stat -c %s "$1")" "$(sha256sum <"$1" | cut -d ' ' -f 1)" "$1" >>manifest
    put "$1"
}
beginning() { # file, bytes
    head -c "$2" "$1" >part && put part
}
# Photographs that differ in a comment, each so many bytes behind the one before.
photographs() { # number, step
    local number
    for ((number = 0; number < $1; number++)); do
        position=$((position + $2))
        { head -c 2 "$samples/jpeg-baseline.jpg" && printf '\377\376\0\016%012d' $position && tail -c +3 "$samples/jpeg-baseline.jpg"; } >"f$position.jpg"
        plant "f$position.jpg"
    done
}
le32() { # number
    # shellcheck disable=SC2059 # the bytes are written as escapes
    printf "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255)))"
}
noise() { # seed: random bytes without end
    openssl enc -aes-128-ctr -K "$(printf '%032x' "$1")" -iv 00000000000000000000000000000000 -in /dev/zero 2>/dev/null
}

echo "making the image …" >&2
truncate -s 6G image
for name in one two; do
    mkdir tree && for part in a b c d; do head -c 200000 <(noise ${#name}${#part}) >tree/$part-$name; done
    (cd tree && zip -q -r - . | cat >../$name.zip)
    rm -r tree
done

# The head of an archive, and 900 MiB behind it the tail of another one.
beginning one.zip 100000
photographs 99 $((9 * MiB))
tail -c 3000 two.zip >part && position=$((900 * MiB)) && put part

# Pages in any order, as swap has them.
cat one.zip two.zip "$samples"/{*.zip,*.docx,*.xlsx,*.pptx,*.odt,*.jar} >pages
while [ "$(stat -c %s pages)" -lt $((40 * MiB)) ]; do cat pages <(head -c 777777 <(noise 9)) >more && mv more pages; done
mkdir split && split -b 4096 -a 5 pages split/p
find split -type f -size 4096c | sort | shuf --random-source=<(noise 3) | xargs cat >pages
position=$((1024 * MiB)) && put pages
rm -r split

position=$((1200 * MiB))
{ printf RIFF && le32 $((300 * MiB)) && tail -c +9 "$samples/avi-mjpeg.avi" | head -c 3000; } >part && put part
photographs 200 $((MiB * 3 / 2 - 512))

for length in 4294967295 0 2147483647; do
    position=$(((position / MiB + 100) * MiB))
    { printf RIFF && le32 $length && tail -c +9 "$samples/wav-plain.wav" | head -c 32 && le32 $length && head -c 100000 <(noise 4); } >part && put part
    photographs 99 $((4 * MiB))
done

position=$(((position / MiB + 100) * MiB))
beginning "$samples/pdf-streams.pdf" 600
photographs 50 $MiB
position=$((position + MiB))
tail -c 300 "$samples/pdf-plain.pdf" >part && put part

# Files side by side, where the end of one could pass for a part of the next.
position=$(((position / MiB + 100) * MiB))
for behind in pdf-plain.pdf rtf-plain.rtf sqlite-small.sqlite; do
    film=film-${behind%.*}.mp4
    size=$(stat -c %s "$samples/mp4-moov-last.mp4")
    free=$(((-size & 511) >= 8 ? (-size & 511) : (-size & 511) + 512))
    { cat "$samples/mp4-moov-last.mp4" && printf '\0\0' && le32 $free | head -c 2 | tail -c 1 && le32 $free | head -c 1 && printf free && head -c $((free - 8)) /dev/zero; } >"$film"
    plant "$film"
    position=$((position + size + free))
    cp "$samples/$behind" . && plant "$behind"
    position=$((position + MiB))
done
