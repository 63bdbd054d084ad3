#tag Class
Protected Class UpdateReports
Inherits SUUpdaterKVZ
	#tag Event
		Sub didFinishLoadingAppcast(update as SUAppcastKVZ)
		  // The feed has arrived. The parameter is called update, but it is the whole feed.
		  dim releases() as SUAppcastItemKVZ = update.items
		  for each release as SUAppcastItemKVZ in releases
		    System.DebugLog release.versionString + " " + release.title
		  next
		End Sub
	#tag EndEvent

	#tag Event
		Sub didFindValidUpdate(update as SUAppcastItemKVZ)
		  // There is a newer version. After checkForUpdates and automatic checks the framework shows it and
		  // goes on by itself; after checkForUpdateInformation it leaves the rest to you.
		  FoundVersion = update.displayVersionString
		  if SomebodyWaits then MsgBox "Version " + FoundVersion + " is here."
		  SomebodyWaits = false
		End Sub
	#tag EndEvent

	#tag Event
		Sub updaterDidNotFindUpdate()
		  // Nothing newer. Say so to somebody who asked, and to nobody else. With version 1.5b6 of the
		  // framework it does not come after automatic checks, unless automatic downloads are on.
		  if SomebodyWaits then MsgBox "You have the newest version."
		  SomebodyWaits = false
		End Sub
	#tag EndEvent

	#tag Event
		Sub updaterWillRelaunchApplication()
		  // This version is about to end, and the new one to be started. Write down what the next start
		  // should know: open windows, the selection, and so on.
		  System.DebugLog "Goodbye."
		End Sub
	#tag EndEvent

	#tag Event
		Sub willInstallUpdate(update as SUAppcastItemKVZ)
		  // The archive is here and its signature is right.
		  System.DebugLog "Installing version " + update.versionString
		End Sub
	#tag EndEvent

	#tag Method, Flags = &h0
		Sub SayThatTheFeedFailed()
		  // Somebody waits for an answer, and the check is over without one.
		  if SomebodyWaits and not updateInProgress then
		    SomebodyWaits = false
		    dim advice as String = "If this program is on a disk image, copy it to your Applications folder first."
		    MsgBox "The list of versions could not be fetched. Are you connected to the internet? " + advice
		  end if
		End Sub
	#tag EndMethod

	#tag Property, Flags = &h0
		FoundVersion As String
	#tag EndProperty

	#tag Property, Flags = &h0
		SomebodyWaits As Boolean
	#tag EndProperty

End Class
#tag EndClass
