# Writes the files' contents as C++ to OUTPUT: cmake -DOUTPUT=... -DFILES=FILE,FILE... -P cmake/embed.cmake
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
file(WRITE ${OUTPUT} "#include \"station/page/static_files.h\"\n
namespace station {\n
const std::vector<StaticFile> kStaticFiles = {
${rows}};
const std::string_view kStaticVersion = \"${version}\";\n
}  // namespace station\n")
