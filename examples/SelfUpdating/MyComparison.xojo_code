#tag Class
Protected Class MyComparison
Inherits SUVersionComparisonKVZ
	#tag Event
		Function compareVersion(VersionA as string, VersionB as string) as integer
		  // Usually VersionA is this program's and VersionB the release's, but not always: compare the two
		  // texts and nothing else. May come on another thread.
		  //
		  // Versions are numbers between dots, and a missing number counts as 0: 1.9 < 1.10, 2.0 = 2.
		  dim a() as String = Split(VersionA, ".")
		  dim b() as String = Split(VersionB, ".")
		  for i as Integer = 0 to Max(UBound(a), UBound(b))
		    dim numberA as Double = 0
		    dim numberB as Double = 0
		    if i <= UBound(a) then numberA = Val(a(i))
		    if i <= UBound(b) then numberB = Val(b(i))
		    if numberA < numberB then return NSOrderedAscending
		    if numberA > numberB then return NSOrderedDescending
		  next
		  return NSOrderedSame
		End Function
	#tag EndEvent

End Class
#tag EndClass
