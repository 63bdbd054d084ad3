#tag Class
Protected Class App
Inherits Application
	#tag Event
		Sub Close()
		  // The program ends. Nothing is left to tell it.
		  mRelaunchTimer = nil
		  Updater = nil
		End Sub
	#tag EndEvent

	#tag Event
		Sub Open()
		  // The framework comes along inside the application, in Contents/Frameworks. The program itself
		  // lies in Contents/MacOS, so two steps up and one down lead to it.
		  dim contents as FolderItem = App.ExecutableFile.Parent.Parent
		  dim framework as FolderItem = contents.Child("Frameworks").Child("Sparkle.framework")

		  // First of all, load it. Without it the plug-in's classes do nothing at all.
		  if not SUUpdaterKVZ.LoadFramework(framework) then
		    MsgBox "A part of this program is missing. Please install it again."
		    return
		  end if

		  // A property, not a variable: when the last reference to an updater goes, its events stop.
		  Updater = new MyUpdater

		  // It looks every second whether a postponed relaunch can go on.
		  mRelaunchTimer = new RelaunchTimer
		  mRelaunchTimer.Period = 1000
		  mRelaunchTimer.Mode = Timer.ModeMultiple

		  // Returns at once. What the check finds comes in the events of the updater.
		  CheckForUpdates
		End Sub
	#tag EndEvent

	#tag Event
		Function UnhandledException(error As RuntimeException) As Boolean
		  // What nobody has caught ends here. True means: go on.
		  MsgBox "Something went wrong. " + error.Message
		  return true
		End Function
	#tag EndEvent

	#tag Method, Flags = &h0
		Sub CheckForUpdates()
		  // For the menu item "Check for Updates...".
		  if Updater = nil then return

		  // The framework raises an exception when it knows no feed. The reason is in its message.
		  try
		    Updater.checkForUpdates
		  catch error as NSExceptionKVZ
		    MsgBox "The check could not begin. " + error.Message
		  end try
		End Sub
	#tag EndMethod

	#tag Method, Flags = &h0
		Sub ChecksAutomatically(Assigns on As Boolean)
		  // For a checkbox in the preferences. The framework remembers the answer.
		  if Updater = nil then return
		  Updater.automaticallyChecksForUpdates = on
		  if on then Updater.updateCheckInterval = 24 * 60 * 60
		End Sub
	#tag EndMethod

	#tag Method, Flags = &h0
		Function ChecksAutomatically() As Boolean
		  // What the checkbox shows.
		  if Updater = nil then return false
		  return Updater.automaticallyChecksForUpdates
		End Function
	#tag EndMethod

	#tag Method, Flags = &h0
		Sub LookForUpdates()
		  // Finds out, and changes nothing. The answer comes in UpdateReports: either in didFindValidUpdate
		  // or in updaterDidNotFindUpdate.
		  if Updater = nil then return
		  if Updater.updateInProgress then return
		  Updater.SomebodyWaits = true
		  Updater.checkForUpdateInformation
		End Sub
	#tag EndMethod

	#tag Method, Flags = &h0
		Sub UseBetas(yes As Boolean)
		  // People who want betas have a feed of their own. An empty text goes back to the feed in the
		  // Info.plist.
		  if Updater = nil then return
		  Updater.WantsBetas = yes
		  if yes then
		    Updater.feedURL = "http://www.example.com/betas.xml"
		  else
		    Updater.feedURL = ""
		  end if
		End Sub
	#tag EndMethod

	#tag Property, Flags = &h0
		HasUnsavedDocuments As Boolean
	#tag EndProperty

	#tag Property, Flags = &h0
		Updater As MyUpdater
	#tag EndProperty

	#tag Property, Flags = &h21
		Private mRelaunchTimer As RelaunchTimer
	#tag EndProperty

End Class
#tag EndClass
