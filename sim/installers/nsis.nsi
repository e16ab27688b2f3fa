; An installer of another make: no Setup Launcher, installs one file, keeps its arguments in "arguments.txt" beside
; itself and reports that it has begun a restart (1641).
Unicode true
Target amd64-unicode
OutFile "${OUT}"
Name "Ravlin Tools"
RequestExecutionLevel user
SilentInstall silent
VIProductVersion "1.0.0.0"
VIAddVersionKey "FileDescription" "Ravlin Tools Installer"
VIAddVersionKey "FileVersion" "1.0.0.0"
VIAddVersionKey "LegalCopyright" "Ravlin"
!include FileFunc.nsh

Section
  SetOutPath "$PROGRAMFILES64\Ravlin Tools NSIS"
  File nsis.nsi
  ${GetParameters} $0
  FileOpen $1 "$EXEDIR\arguments.txt" w
  FileWrite $1 $0
  FileClose $1
  SetErrorLevel 1641
SectionEnd
