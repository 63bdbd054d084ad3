#tag Class
Protected Class App
Inherits Application
	#tag Event
		Function CancelClose() As Boolean
		  // The program is asked to quit: by somebody, or by the framework to relaunch it. Answer true to
		  // stay. A relaunch comes only when nothing is unsaved (see MyUpdater), so let it pass: after a
		  // refusal no check would work until the next start.
		  if HasUnsavedDocuments then
		    MsgBox "There are documents that are not saved. Please save them first."
		    return true
		  end if
		  Quitting = true
		  return false
		End Function
	#tag EndEvent

	#tag Event
		Sub Open()
		  // The framework comes along inside the application, in Contents/Frameworks. The program itself
		  // lies in Contents/MacOS, so two steps up and one down lead to it.
		  dim contents as FolderItem = App.ExecutableFile.Parent.Parent
		  dim framework as FolderItem = contents.Child("Frameworks").Child("Sparkle.framework")

		  // First of all, load it. Without it the plug-in's classes do nothing at all. A program that is run
		  // from the development environment has none in it, so nothing is said there.
		  if not SUUpdaterKVZ.LoadFramework(framework) then
		    if DebugBuild then return
		    MsgBox "A part of this program is missing, and it cannot update itself. Please install it again."
		    return
		  end if

		  // The only updater of this program. It stays in this property until the process ends: there is no
		  // line anywhere that sets it to nil, not even in Close, because the framework does not survive it.
		  Updater = new MyUpdater

		  // It looks every second for what came on other threads, or did not come at all.
		  mTimer = new UpdateTimer
		  mTimer.Period = 1000
		  mTimer.Mode = Timer.ModeMultiple

		  // The framework has kept the feed that UseBetas set, and what the events answer must agree with it.
		  if KnowsItsFeed then Updater.WantsBetas = (Updater.feedURL = BetaFeed)

		  // Automatic checks begin, if they are on: by SUEnableAutomaticChecks in the Info.plist, or by
		  // ChecksAutomatically. This asks nobody. Needs SUFeedURL in the Info.plist.
		  if KnowsItsFeed then Updater.resetUpdateCycle
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
		Function BetaFeed() As String
		  return "http://www.example.com/betas.xml"
		End Function
	#tag EndMethod

	#tag Method, Flags = &h0
		Function CanCheck() As Boolean
		  // Says in words why a check cannot begin.
		  if Updater = nil then
		    MsgBox "A part of this program is missing, and it cannot update itself. Please install it again."
		    return false
		  end if
		  if not KnowsItsFeed then
		    MsgBox "This program does not know where its updates are. Please tell the people who made it."
		    return false
		  end if
		  if Updater.updateInProgress then
		    MsgBox "An update is being looked for or installed already."
		    return false
		  end if
		  return true
		End Function
	#tag EndMethod

	#tag Method, Flags = &h0
		Sub CheckForUpdates()
		  // For the menu item "Check for Updates...". The framework opens a window at once, and says in it
		  // what it found and what went wrong.
		  if not CanCheck then return

		  try
		    Updater.checkForUpdates
		  catch error as NSExceptionKVZ
		    MsgBox "The check could not begin. " + error.Message
		  end try
		End Sub
	#tag EndMethod

	#tag Method, Flags = &h0
		Sub ChecksAutomatically(Assigns on As Boolean)
		  // For a checkbox in the preferences. The framework remembers the answer. A checkbox may also speak
		  // when its window sets it to what is; that is no decision.
		  if Updater = nil then return
		  if on = Updater.automaticallyChecksForUpdates then return
		  Updater.automaticallyChecksForUpdates = on
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
		Function KnowsItsFeed() As Boolean
		  // A check without a feed spoils the updater until the program ends. To read the feed does no harm:
		  // it raises an exception when there is none.
		  try
		    return Updater.feedURL <> ""
		  catch error as NSExceptionKVZ
		    return false
		  end try
		End Function
	#tag EndMethod

	#tag Method, Flags = &h0
		Sub LookForUpdates()
		  // For a button in the About window. Opens no window of the framework, and changes nothing. The answer
		  // comes in UpdateReports: in didFindValidUpdate or in updaterDidNotFindUpdate. If the feed cannot be
		  // had, neither comes, and UpdateTimer says so.
		  if not CanCheck then return
		  Updater.SomebodyWaits = true
		  Updater.checkForUpdateInformation
		End Sub
	#tag EndMethod

	#tag Method, Flags = &h0
		Sub UseBetas(yes As Boolean)
		  // People who want betas have a feed of their own, which the framework keeps for the next start, too. An
		  // empty text goes back to the feed in the Info.plist.
		  if Updater = nil then return
		  Updater.WantsBetas = yes
		  if yes then
		    Updater.feedURL = BetaFeed
		  else
		    Updater.feedURL = ""
		  end if
		End Sub
	#tag EndMethod

	#tag Property, Flags = &h0
		HasUnsavedDocuments As Boolean
	#tag EndProperty

	#tag Property, Flags = &h0
		Quitting As Boolean
	#tag EndProperty

	#tag Property, Flags = &h0
		Updater As MyUpdater
	#tag EndProperty

	#tag Property, Flags = &h21
		Private mTimer As UpdateTimer
	#tag EndProperty

End Class
#tag EndClass
