# Read by yield: makes "image" with real files of all kinds, and "manifest" with their offsets, sizes, hashes and names.
# shellcheck shell=bash
"$root/script/bootstrap" samples

files=$(mkdir -p "${YIELD_FILES:-files}" && cd "${YIELD_FILES:-files}" && pwd)
export TZ=UTC HOME=$scratch # where soffice keeps its settings

picture() { convert-im6.q16 -seed "$1" -size "$2" "plasma:tomato-steelblue" -depth 8 "${@:3}"; }
film() { # seed, size, seconds, arguments of ffmpeg…
    ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=size=$2:rate=12:duration=$3,noise=alls=30:all_seed=$1" \
        -f lavfi -i "anoisesrc=seed=$1:sample_rate=48000:duration=$3" -pix_fmt yuv420p "${@:4}"
}
sound() { # seed, seconds, arguments of ffmpeg…
    ffmpeg -nostdin -v error -y -f lavfi -i "anoisesrc=seed=$1:color=pink:sample_rate=44100:duration=$2" "${@:3}"
}
# Danish and English sentences, the same ones for the same seed.
prose() { # seed, bytes
    awk -v seed="$1" -v bytes="$2" 'BEGIN {
        count = split("en dag i juli stod solen stille over fjorden og ingen havde travlt men båden lå ved broen hvor børn løb " \
            "om kap med hunden mens the old man on the quay was mending his nets and told them what the weather would bring " \
            "blæsten kom først hen under aften there is no harbour like this one he said æbler pærer og blommer hang over muren", w, " ")
        srand(seed)
        while (written < bytes) {
            sentence = ""
            for (i = 4 + int(rand() * 12); i > 0; i--) sentence = sentence w[1 + int(rand() * count)] (i > 1 ? " " : ".")
            if (rand() < 0.15) sentence = sentence "\n"
            print sentence
            written += length(sentence) + 2
        }
    }'
}
sequence() { seq "$1" "$2"; } # so that a seed is the number of the file as well

make_pictures() {
    local n edge
    for n in $(sequence 1 26); do
        edge=$((60 + n * n * 3))
        picture "$n" "${edge}x$((edge * 3 / 4))" -quality $((50 + n % 5 * 10)) -interlace "$([ $((n % 3)) = 0 ] && echo plane || echo none)" \
            "$(case $((n % 7)) in 0) echo -negate ;; 1) echo -flop ;; 2) echo -normalize ;; *) echo -flip ;; esac)" "jpg$n.jpg"
    done
    picture 9 160x120 -quality 60 thumbnail.jpeg
    exiftool -q -overwrite_original -Make=Vintrel -DateTimeOriginal='2019:07:14 12:30:00' '-ThumbnailImage<=thumbnail.jpeg' jpg{2,5,7,9,14,18}.jpg
    jpegtran -restart 2 -copy all -outfile jpg27.jpg jpg14.jpg
    rm thumbnail.jpeg
    for n in $(sequence 1 14); do picture "$n" "$((20 + n * n * 4))x$((30 + n * 20))" -interlace "$([ $((n % 2)) = 0 ] && echo plane || echo none)" \
        -set comment "Nummer $n" "$([ $((n % 3)) = 0 ] && echo -monochrome || echo -flip)" "png$n.png"; done
    for n in $(sequence 1 6); do picture "$n" "$((30 * n))x40" "gif$n.gif"; done
    for n in $(sequence 7 12); do
        convert-im6.q16 -seed "$n" -size "$((n * 20))x60" plasma: plasma: plasma: -delay 10 -loop 0 -interlace gif "gif$n.gif"
    done
    for n in $(sequence 1 8); do picture "$n" "$((n * n * 9))x$((n * 30))" "$([ $((n % 2)) = 0 ] && echo bmp3 || echo bmp):bmp$n.bmp"; done
    for n in $(sequence 1 4); do
        picture "$n" "$((n * 120))x$((n * 80))" -compress none -define tiff:endian=lsb "tif$n.tif"
        picture "$n" "$((n * 120))x$((n * 80))" -compress lzw -define tiff:endian=msb "tif1$n.tif"
        tiffcp -t -w 64 -l 64 -c zip "tif$n.tif" "tif2$n.tif"
        tiffcp -c jpeg -r 16 "tif$n.tif" "tif3$n.tif"
        tiffcp "tif$n.tif" "tif1$n.tif" "tif2$n.tif" "tif4$n.tif"
        picture "$n" "$((n * 100))x$((n * 100))" "ptif:tif5$n.tif"
        cp "tif$n.tif" "tif6$n.tif"
        exiftool -q -overwrite_original -Make=Vintrel -DateTimeOriginal='2019:07:14 12:30:00' -Artist="$(prose "$n" 900)" "tif6$n.tif"
        cp "tif1$n.tif" "dng$n.dng"
        exiftool -q -overwrite_original -DNGVersion=1.4.0.0 -UniqueCameraModel='Vintrel V1' "dng$n.dng"
        picture "$n" "$((n * 90))x$((n * 60))" "webp$n.webp"
        picture "$n" "$((n * 90))x$((n * 60))" -define webp:lossless=true "webp1$n.webp"
        film "$n" 64x48 1 -an -c:v libwebp_anim -loop 0 "webp2$n.webp"
        picture "$n" "$((n * 200))x$((n * 150))" "png24:still.png"
        heif-enc -q $((20 * n)) -t 64 -o "heic$n.heic" still.png >/dev/null
        heif-enc -A -q $((20 * n)) -o "avif$n.avif" still.png >/dev/null
    done
    rm still.png
}

make_films() {
    local n size
    for n in $(sequence 1 6); do
        size=$((n * 64))x$((n * 48))
        film "$n" $size $((n / 2 + 1)) -c:v libx264 -preset veryfast -c:a aac "mp4$n.mp4"
        film "$n" $size $((n / 2 + 1)) -c:v libx264 -preset veryfast -c:a aac -movflags +faststart "mp41$n.mp4"
        film "$n" $size $((n / 2 + 1)) -c:v libx264 -preset veryfast -c:a aac -g 12 -movflags +frag_keyframe+empty_moov "mp42$n.mp4"
        film "$n" $size $((n / 2 + 1)) -c:v mpeg4 -c:a pcm_s16le "mov$n.mov"
        film "$n" $size $((n / 2 + 1)) -c:v mjpeg -pix_fmt yuvj420p -c:a pcm_u8 "avi$n.avi"
        film "$n" $size $((n / 2 + 1)) -c:v mpeg4 -c:a libmp3lame "avi1$n.avi"
        film "$n" $size $((n / 2 + 1)) -c:v libx264 -preset veryfast -c:a libvorbis "mkv$n.mkv"
        mkvmerge -q -o "mkv1$n.mkv" "mp4$n.mp4"
        film "$n" $size 1 -c:v libvpx -b:v 300k -deadline realtime -c:a libvorbis "webm$n.webm"
        film "$n" $size 1 -c:v libtheora -c:a libvorbis "ogv$n.ogv"
        sound "$n" $((n * n)) -c:a pcm_s16le "wav$n.wav"
        sound "$n" $((n * n)) -af "atrim=end_sample=$((n * 1000 + 1))" -c:a pcm_u8 "wav1$n.wav"
        sound "$n" $((n * 2)) -c:a pcm_s16be "aif$n.aif"
        sound "$n" $((n * 2)) -af "atrim=end_sample=$((n * 1000 + 1))" -c:a pcm_mulaw -f aiff "aif1$n.aif"
        sound "$n" $((n * n)) -c:a libvorbis "ogg$n.ogg"
        sound "$n" $((n * 3)) -c:a flac "ogg1$n.ogg"
        sound "$n" $((n * n)) -c:a libopus -b:a 48k "opus$n.opus"
        sound "$n" $((n * n)) -c:a aac "m4a$n.m4a"
        sound "$n" $((n * n)) -c:a libmp3lame -b:a 128k -id3v2_version 3 -metadata title="Nummer $n" "mp3$n.mp3"
        sound "$n" $((n * n)) -c:a libmp3lame -q:a 4 -id3v2_version 4 -write_id3v1 1 -metadata title="Nummer $n" "mp31$n.mp3"
        sound "$n" $((n * 2)) -c:a libmp3lame -ar 22050 -b:a 48k -metadata_header_padding $((n * 1000)) -metadata title="Nummer $n" "mp32$n.mp3"
    done
    picture 3 200x200 cover.jpeg
    for n in $(sequence 1 4); do
        film "$n" 176x144 "$n" -c:v h263 -an "3gp$n.3gp"
        film "$n" $((n * 64))x64 "$n" -c:v libx264 -preset veryfast -c:a aac -f ipod "m4v$n.m4v"
        ffmpeg -nostdin -v error -y -i "mp3$n.mp3" -i cover.jpeg -map 0:a -map 1:v -c copy -disposition:v attached_pic "mp33$n.mp3"
    done
    rm cover.jpeg
}

make_documents() {
    local n kind
    mkdir text && cd text
    for n in $(sequence 1 8); do
        picture "$n" $((n * 60))x120 "picture$n.png"
        picture "$n" $((n * 60))x100 "picture$n.jpg"
        { printf '# Fjorden %s\n\n![Kort](picture%s.png)\n\n' "$n" "$n" && prose "$n" $((n * n * 1500)) &&
            printf '\n\n## Kysten\n\n![Foto](picture%s.jpg)\n\n' "$n" && prose $((n + 50)) $((n * 300)); } >"text$n.md"
        { echo 'Sted,Antal,Pris'; awk -v n="$n" 'BEGIN { srand(n); for (i = 0; i < n * n * 30; i++) print "Havn " i "," int(rand() * 9000) "," rand() }'; } >"table$n.csv"
        { for ((slide = 0; slide < n; slide++)); do printf '# Side %s\n\n- %s\n\n' "$slide" "$(prose $((n * 10 + slide)) 60 | head -1)"; done
            printf '# Foto\n\n![Foto](picture%s.jpg)\n' "$n"; } >"slides$n.md"
        for kind in docx odt epub rtf; do pandoc -s "text$n.md" -M title="Fjorden $n" -o "../${kind}1$n.$kind"; done
        pandoc "slides$n.md" -o "../pptx1$n.pptx"
        cp "../odt1$n.odt" "text$n.odt"
        cp "../pptx1$n.pptx" "slides$n.pptx"
    done
    office() { # target, files…
        mkdir -p made && soffice --headless --convert-to "$1" --outdir made "${@:2}" >/dev/null 2>&1
        for file in made/*; do mv "$file" "../${file##*.}2$(basename "${file%.*}" | tr -d a-z).${file##*.}"; done
    }
    for kind in docx odt doc rtf; do office $kind text?.odt; done
    office pdf text?.odt
    for kind in xlsx xls ods; do office $kind table?.csv; done
    for kind in pptx ppt odp; do office $kind slides?.pptx; done
    cd .. && rm -r text
    for n in $(sequence 1 8); do
        qpdf --linearize "pdf2$n.pdf" "pdf3$n.pdf"
        cp "pdf2$n.pdf" "pdf4$n.pdf" && exiftool -q -overwrite_original -Title="Fjorden $n" "pdf4$n.pdf"
        gs -q -dNOPAUSE -dBATCH -sDEVICE=pdfwrite -sOutputFile="pdf5$n.pdf" "pdf2$n.pdf"
        prose "$n" $((n * n * 2000)) >text.txt
        sqlite3 "sqlite$n.sqlite" "PRAGMA page_size = $((512 << n % 8)); CREATE TABLE t (a INTEGER PRIMARY KEY, b);" \
            "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c WHERE x < $n * 50) INSERT INTO t SELECT x, readfile('text.txt') || x FROM c LIMIT 40;" \
            "$([ $((n % 2)) = 0 ] || echo 'DELETE FROM t WHERE a % 3 = 0;')"
    done
    rm text.txt
    perl - <<'PERL'
use OLE::Storage_Lite;
use Encode;
my @date = (0, 30, 12, 14, 6, 119);
for my $n (1 .. 6) {
    srand($n);
    my @streams = map { OLE::Storage_Lite::PPS::File->new(Encode::encode('UTF-16LE', "__substg1.0_$_"), join '', map { chr 32 + rand 90 } 1 .. $n * 2500) }
        qw(0037001F 1000001F 0C1A001F);
    OLE::Storage_Lite::PPS::Root->new(\@date, \@date, [OLE::Storage_Lite::PPS::File->new(Encode::encode('UTF-16LE', '__properties_version1.0'), "\0" x 64), @streams])->save("msg$n.msg", 1);
}
PERL
}

make_archives() {
    local n
    for n in $(sequence 1 6); do
        mkdir tree && prose "$n" $((n * n * 3000)) >"tree/tekst $n.txt" && prose $((n + 9)) 4000 >tree/andet.txt
        head -c $((n * n * 8000)) <(noise "$n") >tree/data.bin
        (cd tree && zip -q -9 -r "../zip$n.zip" . && zip -q -r - . | cat >"../zip1$n.zip" && zip -q -0 -r "../zip2$n.zip" .)
        (cd tree && zip -q -fz -r "../zip3$n.zip" . && 7z a -bd -tzip "../zip4$n.zip" . && 7z a -bd "../7z$n.7z" .) >/dev/null
        (cd tree && 7z a -bd -mx=0 "../7z1$n.7z" . && 7z a -bd -psecret -mhe "../7z2$n.7z" .) >/dev/null
        (cd tree && cp "../zip$n.zip" indre.zip && zip -q -0 -r "../zip5$n.zip" . && jar --create --file "../jar$n.jar" .)
        rm -r tree
    done
}
make_further() {
    local n size
    for n in $(sequence 1 4); do
        size=$((n * 64))x$((n * 48))
        sound "$n" $((n * 2)) -c:a flac "flac$n.flac"
        sound "$n" $((n * 2)) -c:a flac -f flac - | cat >"flac1$n.flac"
        sound "$n" $((n * 2)) -c:a aac -f adts "aac$n.aac"
        sound "$n" $((n * 2)) -ac 1 -ar 8000 -f wav - | sox -t wav - -t amr-nb -C $((n + 3)) "amr$n.amr" 2>/dev/null
        sound "$n" $((n * 2)) -c:a alac "caf$n.caf"
        sound "$n" $((n * 2)) -c:a pcm_s16be -f au "au$n.au"
        sound "$n" $((n * 2)) -c:a wavpack "wv$n.wv"
        sound "$n" $((n * 2)) -c:a wmav2 "wma$n.wma"
        film "$n" $size "$n" -c:v mpeg2video -r 25 -c:a mp2 -f mpegts "ts$n.ts"
        film "$n" $size "$n" -c:v libx264 -preset veryfast -c:a ac3 -f mpegts -mpegts_m2ts_mode 1 "mts$n.mts"
        film "$n" $size "$n" -c:v mpeg1video -r 25 -c:a mp2 -f mpeg "mpg$n.mpg"
        film "$n" $size "$n" -c:v mpeg2video -r 25 -c:a mp2 -f vob "mpg1$n.mpg"
        film "$n" $size "$n" -c:v mpeg2video -r 25 -c:a ac3 -f dvd "vob$n.vob"
        film "$n" $size "$n" -c:v flv -c:a libmp3lame -ar 44100 "flv$n.flv"
        film "$n" $size "$n" -c:v wmv2 -c:a wmav2 "wmv$n.wmv"
        film "$n" $size 1 -an -c:v mpeg2video -r 25 -f mxf "mxf$n.mxf"
        film "$n" 720x576 0.2 -ac 2 -r 25 -c:v dvvideo -f dv "dv$n.dv"
        for kind in psd jp2 j2k dpx dds; do picture "$n" $size "$kind$n.$kind"; done
        picture "$n" $size "PSB:psb$n.psb"
        picture "$n" 48x48 "ico$n.ico"
        picture "$n" $size "png24:still.png"
        cjxl --quiet --container=1 still.png "jxl$n.jxl" 2>/dev/null
        ffmpeg -nostdin -v error -y -i still.png -c:v targa -pix_fmt bgr24 "tga$n.tga"
        picture "$n" $size still.ppm && c44 still.ppm "djvu$n.djvu"
        mkdir tree && prose "$n" $((n * n * 9000)) >"tree/tekst $n.txt" && head -c $((n * n * 8000)) <(noise "$n") >tree/data.bin
        tar -C tree -cf "tar$n.tar" . && tar -C tree --format=posix -cf "tar1$n.tar" .
        (cd tree && find . | cpio --quiet -o -H newc) >"cpio$n.cpio"
        gzip -c "tree/tekst $n.txt" >"gz$n.gz" && gzip -c "tar$n.tar" >"gz1$n.gz"
        bzip2 -c "tar$n.tar" >"bz2$n.bz2"
        xz -c "tar$n.tar" >"xz$n.xz" && xz -T2 --block-size=32KiB -c "tar$n.tar" >"xz1$n.xz"
        zstd -q -c "tar$n.tar" >"zst$n.zst"
        gcab -c -z "cab$n.cab" tree/*
        genisoimage -quiet -o "iso$n.iso" tree
        rm -r tree still.*
        openssl genpkey -quiet -algorithm rsa -out "pem$n.pem"
        { printf 'From: a@example.dk\nTo: b@example.dk\nDate: Sun, 14 Jul 2019 12:30:00 +0200\nSubject: %s\n' "$n" &&
            printf 'Content-Type: multipart/mixed; boundary="=%s="\n\n--=%s=\n\n' "$n" "$n" && prose "$n" $((n * 4000)) && printf '\n--=%s=--\n' "$n"; } >"eml$n.eml"
        for size in 1 2 3; do printf 'From a@example.dk Sun Jul 14 12:30:00 2019\n' && cat "eml$n.eml" && echo; done >"mbox$n.mbox"
        for size in $(sequence 1 $((n * 30))); do printf 'BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Nummer %s\r\nEND:VCARD\r\n' "$size"; done >"vcf$n.vcf"
    done
    make_drawings
}

make_drawings() { # DWG by the one free package that writes it, BLEND and STL
    blender --background --python-expr '
import bpy, os
for number in range(1, 4):
    bpy.ops.mesh.primitive_uv_sphere_add(segments=8 * number, location=(number, 0, 0))
    bpy.ops.wm.save_as_mainfile(filepath=os.path.abspath(f"blend{number}.blend"), compress=False)
    bpy.ops.export_mesh.stl(filepath=os.path.abspath(f"stl{number}.stl"))
' >/dev/null 2>&1
    npm install --prefix . --silent --ignore-scripts --no-audit --no-fund @node-projects/acad-ts@3.2.0
    cat >drawings.mjs <<'SCRIPT'
import { ACadVersion, CadDocument, DwgWriter, Line, XYZ } from '@node-projects/acad-ts';
import { writeFileSync } from 'fs';
let seed = 1;
const next = () => (seed = (seed * 1103515245 + 12345) % 2 ** 31) / 1e6;
['1014', '1015', '1018', '1024', '1027', '1032'].forEach((version, number) => {
    const drawing = new CadDocument();
    drawing.header.version = ACadVersion['AC' + version];
    for (let count = 400 * 2 ** number; count > 0; --count) {
        const line = new Line();
        line.startPoint = new XYZ(next(), next(), 0);
        line.endPoint = new XYZ(next(), next(), next());
        drawing.modelSpace.entities.add(line);
    }
    writeFileSync(`dwg${version}.dwg`, DwgWriter.writeToBuffer(drawing));
});
SCRIPT
    node drawings.mjs
    rm -r node_modules package*.json drawings.mjs
}

# The same kinds as other programs and other options make them.
make_variants() {
    local n size
    for n in $(sequence 1 3); do
        size=$((n * 64))x$((n * 48))
        sound "$n" $((n * 2)) sound.wav
        picture "$n" 90x60 cover.jpeg
        flac -s -8 --picture=cover.jpeg --padding=$((n * 3000)) -o "flac2$n.flac" sound.wav 2>/dev/null
        sound "$n" $((n * 2)) -c:a aac -write_id3v2 1 -metadata title="Nummer $n" -f adts "aac1$n.aac"
        sound "$n" $((n * 2)) -ac 6 sound6.wav
        wavpack -q -m sound6.wav -o "wv1$n.wv"
        film "$n" $size "$n" -target pal-vcd "mpg2$n.mpg"
        film "$n" $size 1 -pix_fmt yuv420p -c:v libx264 -preset veryfast -c:a aac -f flv "flv1$n.flv"
        picture "$n" $size still.ppm
        opj_compress -i still.ppm -o "jp21$n.jp2" -r 20,5 -TLM -PLT -jpip >/dev/null
        opj_compress -i still.ppm -o "j2k1$n.j2k" -t 32,32 -SOP -EPH >/dev/null
        picture "$n" $size -monochrome still.pbm
        c44 still.ppm page1.djvu && cjb2 still.pbm page2.djvu && djvm -c "djvu1$n.djvu" page1.djvu page2.djvu
        rm still.* page* sound* cover.jpeg
        mkdir tree && prose "$n" $((n * n * 9000)) >tree/tekst.txt && head -c $((n * n * 8000)) <(noise "$n") >tree/data.bin
        tar -C tree --format=v7 -cf "tar2$n.tar" . && tar -C tree -V "Nummer $n" -cf "tar3$n.tar" .
        (cd tree && printf '%s\n' * | cpio --quiet -o -H odc) >"cpio1$n.cpio"
        (cd tree && printf '%s\n' * | cpio --quiet -o -H bin) >"cpio2$n.cpio" 2>/dev/null
        pzstd -q -c tree/tekst.txt >"zst1$n.zst"
        bsdtar --format=zip --options zip:zip64 -cf "zip6$n.zip" -C tree tekst.txt data.bin
        genisoimage -quiet -iso-level 4 -udf -o "iso1$n.iso" tree
        head -c 70000 /dev/zero >start && xorriso -as mkisofs -quiet -R -appended_part_as_gpt -append_partition 2 0xef start -o "iso2$n.iso" tree 2>/dev/null
        rm -r tree start
        openssl req -x509 -newkey rsa:2048 -nodes -keyout key -out cert -subj "/CN=Nummer $n" 2>/dev/null
        openssl x509 -in cert -text >"pem1$n.pem"
        openssl pkcs12 -export -in cert -inkey key -passout pass:x | openssl pkcs12 -passin pass:x -nodes >"pem2$n.pem"
        rm key cert
        sq key generate --userid "Nummer $n" --export key.asc 2>/dev/null && sq dearmor key.asc >"gpg1$n.gpg" && rm key.asc*
        { printf 'Envelope-to: b@example.dk\nMIME-Version: 1.0\nFrom: a@example.dk\nTo: b@example.dk\nSubject: %s\n' "$n" &&
            printf 'Content-Type: multipart/mixed; boundary="=%s="\n\n--=%s=\n\n' "$n" "$n" && prose "$n" $((n * 4000)) && printf '\n--=%s=--\n' "$n"; } >"eml1$n.eml"
        for size in 1 2 3; do printf 'From \n' && cat "eml1$n.eml" && echo; done >"mbox1$n.mbox"
        { printf '\xEF\xBB\xBF' && for size in $(sequence 1 $((n * 30))); do printf 'BEGIN:VCARD\nVERSION:2.1\nN:%s\nend:vcard\n\n' "$size"; done | sed '$d'; } >"vcf1$n.vcf"
    done
}

noise() { # seed: random bytes without end
    openssl enc -aes-128-ctr -K "$(printf '%032x' "$1")" -iv 00000000000000000000000000000000 -in /dev/zero 2>/dev/null
}

if [ ! -e "$files/complete" ]; then
    echo "making the files …" >&2
    for maker in make_pictures make_films make_documents make_archives make_further make_variants; do
        (mkdir "$scratch/$maker" && cd "$scratch/$maker" && $maker) &
        makers+=($!)
    done
    for maker in "${makers[@]}"; do wait "$maker"; done
    cp "$root"/Tests/Samples/*.* "$files"
    mv make_*/* "$files" && touch "$files/complete"
fi

echo "making the image …" >&2
ls "$files" | grep -v '^complete$' | shuf --random-source=<(noise 1) >names
# PDFs stand side by side at one place, since the end of one is only told by what follows.
{ grep '^pdf5' names; grep -v '^pdf5' names; } >order
prose 99 4000000 >prose
find /usr/include /usr/share/doc /usr/share/perl -name '*.h' -o -name copyright -o -name '*.pm' | sort | xargs cat 2>/dev/null |
    dd bs=64K count=128 iflag=fullblock of=source status=none || true # what remains of the pipe is not wanted

: >image
: >manifest
position=0
filler() { # kind, bytes, seed
    case $1 in
        random) head -c "$2" <(noise "$3") ;;
        zero) head -c "$2" /dev/zero ;;
        prose | source) dd if="$1" bs=64K iflag=skip_bytes,count_bytes skip=$(($3 * 7919 % 2000000)) count="$2" status=none ;;
    esac >>image
    position=$((position + $2))
}
to_sector() { filler "${1:-zero}" $((-position & 511)) 5; }
plant() { # file
    local size
    size=$(stat -c %s "$files/$1")
    printf '%d\t%d\t%s\t%s\n' $position "$size" "$(sha256sum <"$files/$1" | cut -d ' ' -f 1)" "$1" >>manifest
    cat "$files/$1" >>image
    position=$((position + size))
}
# The beginning of a file that was overwritten in part. What begins at these places is not whole.
lost() { # file
    local size
    size=$(($(stat -c %s "$files/$1") * 6 / 10))
    head -c $size "$files/$1" >>image
    position=$((position + size))
    to_sector
}
ffmpeg -nostdin -v error -f lavfi -i anoisesrc=seed=5:duration=1 -f wav - | cat >endless.wav # its length is FFFFFFFF
awk 'BEGIN { srand(11); split("random prose source zero none", kind, " ")
    for (i = 0; i < 2000; i++) print kind[1 + int(rand() * 5)], 512 * int(1 + rand() ^ 3 * 4000), int(rand() * 1000) }' >gaps
exec 3<gaps
number=0
while read -r name; do
    number=$((number + 1))
    case $name in
        pdf5*) ;;
        *)
            read -r kind bytes seed <&3
            filler "$kind" "$([ "$kind" = none ] && echo 0 || echo "$bytes")" "$seed"
            ;;
    esac
    # Hostile neighbours in front of some.
    case $((number % 40)) in
        11) lost zip$((number / 40 % 6 + 1)).zip ;;
        13) lost docx1$((number / 40 % 6 + 1)).docx ;;
        15) lost pdf2$((number / 40 % 6 + 1)).pdf ;;
        17) lost jpg$((number / 40 % 20 + 8)).jpg ;;
        19) lost png$((number / 40 % 6 + 4)).png ;;
        21) lost gif$((number / 40 % 6 + 4)).gif ;;
        23) lost ogg$((number / 40 % 6 + 1)).ogg ;;
        25) lost rtf1$((number / 40 % 6 + 1)).rtf ;;
        27) cat endless.wav >>image && position=$((position + $(stat -c %s endless.wav))) && to_sector ;;
    esac
    plant "$name"
    case $name in
        mp42?.mp4) printf '\0\0\x10\0\x01\x02\xfe\xff' >>image && position=$((position + 8)) && to_sector prose ;; # no type of a box
        mp41?.mp4) to_sector prose ;;
        *) to_sector ;;
    esac
done <order
filler random 1000000 7
to_sector
