# Run by CPack over the files of the zip before it is packed: makes an installer of the same files, for all users, below
# the folder of programs. A component's code comes from the path of its file and the product's from the version, so that
# a newer version takes the place of an older one.
set(NAMESPACE 7a1f4e36-5a0c-4b0e-9d53-2f1c9a6e8b07)
set(TREE ${CPACK_TEMPORARY_DIRECTORY})
set(DESCRIPTOR ${CPACK_PACKAGE_DIRECTORY}/${CPACK_PACKAGE_FILE_NAME}.wxs)

function(describe LINE)
    set_property(GLOBAL APPEND_STRING PROPERTY DESCRIPTION "${LINE}\n")
endfunction()

# describe_component(ID CONTENT): of the folder that is being described.
function(describe_component ID CONTENT)
    string(UUID CODE NAMESPACE ${NAMESPACE} NAME "component ${ID}" TYPE SHA1 UPPER)
    describe("<Component Id='c_${ID}' Guid='${CODE}'>${CONTENT}</Component>")
    set_property(GLOBAL APPEND_STRING PROPERTY COMPONENTS "<ComponentRef Id='c_${ID}'/>\n")
endfunction()

# describe_folder(ID PATH): PATH is relative, empty or with a slash behind. A folder that is a component of its own goes
# when it is empty.
function(describe_folder ID PATH)
    describe_component(${ID} "<CreateFolder/>")
    file(GLOB ENTRIES LIST_DIRECTORIES true RELATIVE ${TREE} ${TREE}/${PATH}*)
    foreach(ENTRY IN LISTS ENTRIES)
        string(MAKE_C_IDENTIFIER ${ENTRY} ENTRY_ID)
        cmake_path(GET ENTRY FILENAME NAME)
        if(IS_DIRECTORY ${TREE}/${ENTRY})
            describe("<Directory Id='d_${ENTRY_ID}' Name='${NAME}'>")
            describe_folder(${ENTRY_ID} ${ENTRY}/)
            describe("</Directory>")
        else()
            describe_component(${ENTRY_ID} "<File Id='f_${ENTRY_ID}' Name='${NAME}' Source='${ENTRY}' KeyPath='yes'/>")
        endif()
    endforeach()
endfunction()

string(UUID PRODUCT NAMESPACE ${NAMESPACE} NAME "product ${CPACK_PACKAGE_VERSION}" TYPE SHA1 UPPER)
string(UUID UPGRADE NAMESPACE ${NAMESPACE} NAME upgrade TYPE SHA1 UPPER)
describe("<?xml version='1.0' encoding='utf-8'?>
<Wix xmlns='http://schemas.microsoft.com/wix/2006/wi'>
<Product Id='${PRODUCT}' Name='Velkor PKCS #11 module' Language='1033' Version='${CPACK_PACKAGE_VERSION}'
         Manufacturer='Brenmoor' UpgradeCode='${UPGRADE}'>
<Package InstallerVersion='200' Compressed='yes' InstallScope='perMachine'/>
<MajorUpgrade DowngradeErrorMessage='A newer version is installed.'/>
<Media Id='1' Cabinet='files.cab' EmbedCab='yes'/>
<Directory Id='TARGETDIR' Name='SourceDir'>
<Directory Id='ProgramFiles64Folder'>
<Directory Id='d_maker' Name='Brenmoor'>")
describe_component(maker "<CreateFolder/>")
describe("<Directory Id='INSTALLDIR' Name='Velkor'>")
describe_folder(product "")
get_property(COMPONENTS GLOBAL PROPERTY COMPONENTS)
describe("</Directory>\n</Directory>\n</Directory>\n</Directory>
<Feature Id='all' Level='1'>
${COMPONENTS}</Feature>
</Product>
</Wix>")

get_property(DESCRIPTION GLOBAL PROPERTY DESCRIPTION)
file(WRITE ${DESCRIPTOR} "${DESCRIPTION}")
execute_process(COMMAND ${CPACK_WIXL} --arch x64 --output ${CPACK_PACKAGE_DIRECTORY}/${CPACK_PACKAGE_FILE_NAME}.msi
                        ${DESCRIPTOR}
                WORKING_DIRECTORY ${TREE} COMMAND_ERROR_IS_FATAL ANY)
