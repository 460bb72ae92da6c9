#!/usr/bin/env bash
# Builds the opcdir tool, then makes a small Word document with it and shows
# each step: a new folder package, its parts written with put, listed, read
# back, edited, packed to sample.docx and unpacked again.
#
# usage: scripts/demo.sh [FOLDER]
# Works in FOLDER (made if missing), or in a fresh temporary folder.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/setup.sh"
echo "demo: building opcdir in $root/build" >&2
cmake -S "$root" -B "$root/build" >/dev/null
cmake --build "$root/build" --target opcdir -j2 >/dev/null
opcdir="$root/build/tools/opcdir/opcdir"

if [ $# -ge 1 ]; then
  work="$1"
  mkdir -p "$work"
else
  work="$(mktemp -d -t opcdir-demo.XXXXXX)"
fi
cd "$work"
if [ -e sample ] || [ -e sample.docx ] || [ -e copy ]; then
  echo "demo: $work already holds sample, sample.docx or copy; give an empty folder" >&2
  exit 1
fi
echo "demo: working in $work" >&2

# Prints the command as a person would type it, then runs it.
run() {
  local shown="opcdir" argument
  for argument in "$@"; do
    if [[ "$argument" =~ ^[A-Za-z0-9_./-]+$ ]]; then shown+=" $argument"; else shown+=" '$argument'"; fi
  done
  printf '\n$ %s\n' "$shown"
  "$opcdir" "$@"
}

cat > content-types.xml <<'XML'
<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<Types xmlns="http://schemas.openxmlformats.org/package/2006/content-types">
  <Default Extension="rels" ContentType="application/vnd.openxmlformats-package.relationships+xml"/>
  <Default Extension="xml" ContentType="application/xml"/>
  <Override PartName="/word/document.xml" ContentType="application/vnd.openxmlformats-officedocument.wordprocessingml.document.main+xml"/>
</Types>
XML
cat > rels.xml <<'XML'
<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">
  <Relationship Id="rId1" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/officeDocument" Target="word/document.xml"/>
</Relationships>
XML
cat > document.xml <<'XML'
<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<w:document xmlns:w="http://schemas.openxmlformats.org/wordprocessingml/2006/main">
  <w:body>
    <w:p><w:r><w:t>Hello from a folder package.</w:t></w:r></w:p>
  </w:body>
</w:document>
XML

run new sample
run put sample '[Content_Types].xml' content-types.xml
run put sample /_rels/.rels rels.xml
run put sample /word/document.xml document.xml
run ls --long sample
run cat sample /word/document.xml

# An edit: a second paragraph, written from standard input.
sed 's|</w:body>|  <w:p><w:r><w:t>Edited with opcdir put.</w:t></w:r></w:p>\n  </w:body>|' document.xml > edited.xml
printf '\n$ opcdir put sample /word/document.xml < edited.xml\n'
"$opcdir" put sample /word/document.xml < edited.xml
run ls sample

run pack sample sample.docx
run unpack sample.docx copy
printf '\n$ diff -r sample copy && echo same\n'
diff -r sample copy && echo same

if command -v python3 >/dev/null; then
  printf '\n$ python3 (zipfile: entries of sample.docx)\n'
  python3 - <<'PY'
import zipfile
with zipfile.ZipFile("sample.docx") as z:
    assert z.testzip() is None
    names = z.namelist()
    assert names == ["[Content_Types].xml", "_rels/.rels", "word/document.xml"], names
    assert b"Edited with opcdir put." in z.read("word/document.xml")
    for info in z.infolist():
        print(f"{info.file_size:6d}  {info.date_time[0]}-{info.date_time[1]:02d}-{info.date_time[2]:02d}  {info.filename}")
PY
fi
printf '\ndemo: %s/sample.docx is ready\n' "$work"
