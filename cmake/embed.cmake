# Writes the files' contents as C++ to OUTPUT, as PREFIXFiles and PREFIXVersion; HEADER declares those that are used:
#     cmake -DOUTPUT=... -DHEADER=... -DPREFIX=kStatic -DFILES=FILE,FILE... -P cmake/embed.cmake
string(REPLACE "," ";" FILES "${FILES}")
set(rows "")
set(hashes "")
foreach(file ${FILES})
    get_filename_component(name ${file} NAME)
    file(READ ${file} content)
    file(SHA256 ${file} hash)
    string(APPEND hashes ${hash})
    string(APPEND rows "    {\"${name}\", R\"embedded(${content})embedded\"},\n")
endforeach()
string(SHA256 version "${hashes}")
file(WRITE ${OUTPUT} "#include \"${HEADER}\"\n
namespace station {\n
const std::vector<StaticFile> ${PREFIX}Files = {
${rows}};
[[maybe_unused]] const std::string_view ${PREFIX}Version = \"${version}\";\n
}  // namespace station\n")
