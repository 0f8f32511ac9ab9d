; The installer; scripts/package-windows gives VERSION, STAGE (the folder with what is installed), OUTPUT and ICON.
Unicode true
Target amd64-unicode
SetCompressor /SOLID lzma
Name "Trabex"
OutFile "${OUTPUT}"
InstallDir "C:\Trabex"
RequestExecutionLevel admin
ManifestDPIAware true
VIProductVersion "${VERSION}.0"
VIAddVersionKey "ProductName" "Trabex"
VIAddVersionKey "FileDescription" "Installer of Trabex, an SMTP filtering proxy"
VIAddVersionKey "FileVersion" "${VERSION}.0"
VIAddVersionKey "ProductVersion" "${VERSION}.0"
VIAddVersionKey "LegalCopyright" "MIT licence"

!include "LogicLib.nsh"
!include "MUI2.nsh"

!define MUI_ICON "${ICON}"
!define MUI_UNICON "${ICON}"
!define MUI_FINISHPAGE_NOAUTOCLOSE
!insertmacro MUI_PAGE_LICENSE "${STAGE}\licences\Trabex.txt"
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE "English"

!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\Trabex"
!define SECONDS_FOR_AN_END 60

; Where it is installed already, it is installed again.
Function .onInit
  SetRegView 64
  SetShellVarContext all
  ${If} $INSTDIR == "C:\Trabex"
    ReadRegStr $0 HKLM "${UNINSTALL_KEY}" "InstallLocation"
    ${If} $0 != ""
      StrCpy $INSTDIR $0
    ${EndIf}
  ${EndIf}
FunctionEnd

Function un.onInit
  SetRegView 64
  SetShellVarContext all
FunctionEnd

; Asks the instances whose initialization files lie beside the program to end, and waits until none runs: then the
; program's file can be written. An instance of a file elsewhere has to be ended by hand; it is waited for as well.
!macro EndInstances prefix
Function ${prefix}EndInstances
  ${IfNot} ${FileExists} "$INSTDIR\Trabex.exe"
    Return
  ${EndIf}
  FindFirst $0 $1 "$INSTDIR\*.ini"
  ${DoWhile} $1 != ""
    ExecWait '"$INSTDIR\Trabex.exe" /X /I "$INSTDIR\$1"'
    FindNext $0 $1
  ${Loop}
  FindClose $0
  again:
  StrCpy $2 0
  ${Do}
    ClearErrors
    FileOpen $0 "$INSTDIR\Trabex.exe" a
    ${IfNot} ${Errors}
      FileClose $0
      Return
    ${EndIf}
    Sleep 250
    IntOp $2 $2 + 250
  ${LoopUntil} $2 >= ${SECONDS_FOR_AN_END}000
  MessageBox MB_RETRYCANCEL|MB_ICONEXCLAMATION "Trabex still runs. End it, then try again." /SD IDCANCEL IDRETRY again
  SetErrorLevel 3
  Abort "Trabex still runs."
FunctionEnd
!macroend
!insertmacro EndInstances ""
!insertmacro EndInstances "un."

Section
  Call EndInstances
  SetOutPath "$INSTDIR"
  File "${STAGE}\Trabex.exe"
  File "${STAGE}\Trabex-sample.ini"
  File "${STAGE}\README.txt"
  ; What somebody has set stays.
  ${IfNot} ${FileExists} "$INSTDIR\Trabex.ini"
    CopyFiles /SILENT "$INSTDIR\Trabex-sample.ini" "$INSTDIR\Trabex.ini"
  ${EndIf}
  SetOutPath "$INSTDIR\manual"
  File "${STAGE}\manual\*.html"
  File "${STAGE}\manual\*.svg"
  SetOutPath "$INSTDIR\licences"
  File "${STAGE}\licences\*.txt"
  File "${STAGE}\licences\trabex.spdx.json"
  ; The folder that the start menu's entries begin in.
  SetOutPath "$INSTDIR"
  CreateDirectory "$SMPROGRAMS\Trabex"
  CreateShortCut "$SMPROGRAMS\Trabex\Trabex.lnk" "$INSTDIR\Trabex.exe"
  CreateShortCut "$SMPROGRAMS\Trabex\Manual.lnk" "$INSTDIR\manual\windows.html"
  CreateShortCut "$SMPROGRAMS\Trabex\Uninstall Trabex.lnk" "$INSTDIR\uninstall.exe"
  WriteUninstaller "$INSTDIR\uninstall.exe"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayName" "Trabex"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayIcon" "$INSTDIR\Trabex.exe"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "InstallLocation" "$INSTDIR"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "UninstallString" '"$INSTDIR\uninstall.exe"'
  WriteRegStr HKLM "${UNINSTALL_KEY}" "QuietUninstallString" '"$INSTDIR\uninstall.exe" /S'
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoModify" 1
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoRepair" 1
SectionEnd

; Initialization files, logs and greylisting databases stay, and the folder with them.
Section "Uninstall"
  Call un.EndInstances
  Delete "$INSTDIR\Trabex.exe"
  Delete "$INSTDIR\Trabex-sample.ini"
  Delete "$INSTDIR\README.txt"
  Delete "$INSTDIR\manual\*.html"
  Delete "$INSTDIR\manual\*.svg"
  RMDir "$INSTDIR\manual"
  Delete "$INSTDIR\licences\*.txt"
  Delete "$INSTDIR\licences\trabex.spdx.json"
  RMDir "$INSTDIR\licences"
  Delete "$INSTDIR\uninstall.exe"
  RMDir "$INSTDIR"
  Delete "$SMPROGRAMS\Trabex\Trabex.lnk"
  Delete "$SMPROGRAMS\Trabex\Manual.lnk"
  Delete "$SMPROGRAMS\Trabex\Uninstall Trabex.lnk"
  RMDir "$SMPROGRAMS\Trabex"
  DeleteRegKey HKLM "${UNINSTALL_KEY}"
SectionEnd
