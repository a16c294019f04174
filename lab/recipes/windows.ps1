# metadata_begin
# recipe: Host name
# tags: windows
# description_en: Gives the server the name in NAME
# metadata_end
Rename-Computer -NewName $env:NAME
