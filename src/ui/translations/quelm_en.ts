<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en_US">
<context>
    <name></name>
    <message id="kQVDetailedResultsVCPath">
        <source>Path</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCReason">
        <source>Reason</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCCurrentValue">
        <source>Current Value</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCCorrectValue">
        <source>Correct Value</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCNewValue">
        <source>New Value</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCFileStatus">
        <source>Status</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="Owner ID Mismatched">
        <source>Owner ID Mismatched</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="Group ID Mismatched">
        <source>Group ID Mismatched</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="POSIX Permissions Mismatched">
        <source>POSIX Permissions Mismatched</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="Verified">
        <source>Verified</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="Fixed">
        <source>Fixed</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="Failed">
        <source>Failed</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCRepairPermissionsResults">
        <source>Repair Permissions Results</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCOK">
        <source>OK</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCReport">
        <source>Report</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmAppearanceModeLightMode">
        <source>Light</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmAppearanceModeDarkMode">
        <source>Dark</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmPreferenceVCAskMeEveryTime">
        <source>Ask me every time</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmPreferenceVCUseTheDefaultSmartTable">
        <source>Use the default smart table</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmPreferenceVCDefaultInstallationPreference">
        <source>Default Installation Preference</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmPreferenceVCDefaultAppearance">
        <source>Default Appearance</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmPreferenceVCInstallKextsTo">
        <source>Install kexts to:</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmPreferenceVCEdit">
        <source>Edit</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainAboutVESKP">
        <source>About Quelm</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainCheckForUpdates">
        <source>Check for Updates...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainPreferences">
        <source>Preferences...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainHideVESKP">
        <source>Hide Quelm</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainHideOthers">
        <source>Hide Others</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainShowAll">
        <source>Show All</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainQuitVESKP">
        <source>Quit Quelm</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainView">
        <source>View</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainShowToolbar">
        <source>Show Toolbar</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainCustomize">
        <source>Customize Toolbar...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainWindow">
        <source>Window</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainMinimize">
        <source>Minimize</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainZoom">
        <source>Zoom</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainBringAllToFront">
        <source>Bring All to Front</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainHelp">
        <source>Help</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainVESKPHelp">
        <source>Quelm Help</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVQLMainIsRunning">
        <source>Quelm cannot run now</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVQLMainIsRunningDescription">
        <source>Another application of the family is running. Quit it, then open Quelm again.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmAnErrorOccured">
        <source>An error occurred</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmUnableToCreateApplicationSupportDirectory">
        <source>Quelm cannot create its folder for your files.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmUnableToAllocateDefaultSmartTable">
        <source>Quelm cannot prepare your copy of the smart table.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVQLMainRequestAuthorization">
        <source>Quelm needs your permission to install its helper, which installs kexts and repairs permissions.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVXPCHelperManagerAnErrorOccured">
        <source>An error occurred</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVXPCHelperManagerFailedToConnectToHelper">
        <source>Quelm cannot talk to its helper: </source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVXPCHelperManagerFailedToInstallHelper">
        <source>Quelm cannot install its helper.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVXPCHelperManagerFailedToReinstallHelper">
        <source>Quelm cannot install the new version of its helper.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVXPCHelperManagerFailedToRemoveHelper">
        <source>Quelm cannot remove the old version of its helper.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVXPCHelperManagerFailedToAuthenticate">
        <source>Quelm was not allowed to install its helper.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppDescription">
        <source>Installs kexts onto a macOS volume and repairs the volume so that it boots.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppOptionVolume">
        <source>The mount point of the macOS volume to work on.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppOptionResults">
        <source>Show the results of a saved repair report.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppOptionHelperRoot">
        <source>Install and start the helper under this folder instead of / (for tests).</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppArgumentKexts">
        <source>The kext bundles to install.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCReportTitle">
        <source>Permissions repair report</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractMaintenanceVCSelectTargetSystemVolume">
        <source>Select the target system volume</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractMaintenanceVCReady">
        <source>Ready</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractMaintenanceVCExecute">
        <source>Execute</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractMaintenanceVCReset">
        <source>Reset</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractMaintenanceVCStatus">
        <source>Status: </source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractVCSelect">
        <source>Select</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractVCAnErrorOccured">
        <source>An error occurred</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractMaintenanceVCSelectedVolumeIsRecoveryVolume">
        <source>The selected volume is a recovery volume, which cannot be the target.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQLMVCPreparing">
        <source>Preparing...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractBackingUpKexts">
        <source>Backing up kexts...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractInstallingKexts">
        <source>Installing kexts...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCSelectInstallationFolderForKext">
        <source>Select the installation folder for </source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCSelectInstallationFolderForKextDescription">
        <source>Third-party kexts usually belong in /Library/Extensions/; some drivers must load from /System/Library/Extensions/.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCCancel">
        <source>Cancel</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractRepairingPermissions">
        <source>Repairing permissions...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractRebuildingCaches">
        <source>Rebuilding caches...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCFailed">
        <source>Failed: </source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCFinished">
        <source>Finished</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCInstalled">
        <source>Installed: </source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCSelectedKextsHaveBeenInstalled">
        <source>The selected kexts have been installed.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCVolumeCannotBeChanged">
        <source>The target volume cannot be changed</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="Bill of Materials Unreadable">
        <source>Bill of Materials Unreadable</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCStatusFilter">
        <source>Status:</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCAllStatuses">
        <source>All</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCPathFilter">
        <source>Filter by path</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCCopy">
        <source>Copy</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCSaveReport">
        <source>Save Report...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCShownRows">
        <source>Rows shown: %L1 of %L2</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCReportNotSaved">
        <source>The report could not be saved.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCSaveReportTitle">
        <source>Save Report</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCReportFileName">
        <source>Permissions Report.txt</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVDetailedResultsVCTextFiles">
        <source>Text files (*.txt)</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCNotAKext">
        <source>not a kext</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCNotAVolume">
        <source>its volume is not a macOS volume</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCNoFolderChosen">
        <source>no folder was chosen</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCNotInSmartTable">
        <source>not in the smart table</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCSkipped">
        <source>Skipped: </source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCNoKextInstalled">
        <source>No kext was installed.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="Attributes Unreadable">
        <source>Attributes Unreadable</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="Size Mismatched">
        <source>Size Mismatched</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="Checksum Mismatched">
        <source>Checksum Mismatched</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="Content Unreadable">
        <source>Content Unreadable</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmPreferenceVCBackupFolder">
        <source>Back up replaced and removed kexts into</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmPreferenceVCChoose">
        <source>Choose...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmPreferenceVCChooseBackupFolder">
        <source>Choose the backup folder</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppMainInstalledKexts">
        <source>Installed Kexts...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCYes">
        <source>Yes</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCNo">
        <source>No</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCName">
        <source>Name</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCIdentifier">
        <source>Identifier</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCVersion">
        <source>Version</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCFolder">
        <source>Folder</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCApple">
        <source>Apple&apos;s</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCOwnerAndMode">
        <source>Owner and Mode Right</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCSigned">
        <source>Signed</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCCPUTypes">
        <source>CPU Types</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCCancel">
        <source>Cancel</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCTitle">
        <source>Installed Kexts</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRefresh">
        <source>Refresh</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRestore">
        <source>Restore...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRemove">
        <source>Remove...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCCount">
        <source>Kexts listed: %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRemoveAppleKextAnyway">
        <source>Remove it anyway? It can be put back from its backup.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRemoveAnyway">
        <source>Remove Anyway</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCAppleKext">
        <source>%1 is Apple&apos;s (%2): macOS may need it to start.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCAnErrorOccured">
        <source>An error occurred</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCNoBackupFolder">
        <source>Quelm cannot make its backup folder.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRemoveKexts">
        <source>Remove %1?</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRemoveKextsDescription">
        <source>Each kext moves into a new backup folder in %1, with its staged copy when there is one; nothing is deleted.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRemoveButton">
        <source>Remove</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRemoving">
        <source>Removing kexts...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRemoved">
        <source>The kexts were moved into %1.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCNotRemoved">
        <source>These kexts could not be removed: %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCKernelCacheWarning">
        <source>The next start still uses the old kernel cache, which may still hold the removed kext: start the Mac once in safe mode (hold Shift while it starts), or rebuild the caches from Recovery, so that macOS builds a new cache without it.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCChooseBackup">
        <source>Choose a backup folder</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRestoreReplaces">
        <source>%1, replacing the kext installed there, which is backed up first</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRestoreKexts">
        <source>Put back the kexts of %1?</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRestoreButton">
        <source>Restore</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRestoring">
        <source>Restoring kexts...</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRestored">
        <source>The kexts were put back.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCReplacedBackup">
        <source>What they replaced is in %1.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCNotRestored">
        <source>These kexts could not be put back: %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCNoHelper">
        <source>Quelm cannot start its helper, which changes the volume as root.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCFailedChecks">
        <source>failed its checks</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCKextFailedChecks">
        <source>%1 did not pass the checks and may not load:</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCInstallAnyway">
        <source>Install Anyway</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCSkip">
        <source>Skip</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCNotBackedUp">
        <source>its installed copy could not be backed up</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCBackup">
        <source>Backup: </source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVLaterStartInstallOnto">
        <source>Install these kexts onto %1?</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVLaterStartInstallOntoChosen">
        <source>Install these kexts onto the volume you choose next?</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVLaterStartHandedOver">
        <source>Another program handed them to Quelm. Install them only if you chose them yourself:</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVLaterStartInstall">
        <source>Install</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVLaterStartCancel">
        <source>Cancel</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCBackupGoesHome">
        <source>A kext made for one macOS may keep another from starting. Put them back where they came from unless you know they belong on %1.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCBackupHomeMissing">
        <source>%1 is not a macOS volume now. A kext made for one macOS may keep another from starting: put them onto %2 only if you know they belong there.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCBackupOfOtherVolume">
        <source>These kexts came from %1, but this window shows %2.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCRestoreOnto">
        <source>Restore onto %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVAppOptionDataVolume">
        <source>The mount point of the data volume of macOS 10.15 or later, when it is not found by itself.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVInstalledKextsVCTitleOn">
        <source>Installed Kexts — %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractMaintenanceVCSelectDataVolume">
        <source>Select the data volume of %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractMaintenanceVCSelectSystemVolume">
        <source>Select the system volume whose data volume is %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainAbstractMaintenanceVCNotASystemVolume">
        <source>%1 is not the system volume of macOS 10.15 or later.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVTargetVolumeUnreadableBuild">
        <source>%1 holds a macOS whose build version Quelm cannot read.</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVTargetVolumeSystemOnly">
        <source>%1 — system: %2, data volume not found</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVTargetVolumeSystemAndData">
        <source>%1 — system: %2, data: %3</source>
        <translation type="unfinished"></translation>
    </message>
    <message id="kQVMainQuelmVCNoBackupFolder">
        <source>Quelm cannot make its backup folder.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
</TS>
