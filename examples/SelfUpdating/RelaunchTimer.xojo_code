#tag Class
Protected Class RelaunchTimer
Inherits Timer
	#tag Event
		Sub Action()
		  // A timer runs on the main thread. Here you may ask people to save, open windows, and so on.
		  if App.Updater <> nil then App.Updater.RelaunchIfReady
		End Sub
	#tag EndEvent

End Class
#tag EndClass
