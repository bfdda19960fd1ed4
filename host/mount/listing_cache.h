// Knows the names and attributes that the disk has shown, as long as they can be trusted.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "remote/notice.h"
#include "remote/remote_files.h"

namespace cpd::host {

/// Lists directories, and answers questions for single names from their listings.
///
/// For a directory that was listed recently, the module gets the old listing to check, and sends a
/// new one only if the directory differs from it. The check compares names, sizes and seconds of
/// modification, and the directory's own times show that a file was replaced. Any other change on
/// the client (a mode, an owner, a link count, or content that changes twice within one second and
/// keeps its size) shows in listings only when the cached one is kLongestUse old.
///
/// A question for a name is answered from a listing that was requested at most kTrusted ago. A name
/// that the listing does not have is asked for, so a file that the client has just made shows at
/// once. For kTrusted, a directory that was made through this mount counts as empty, except for
/// what this mount makes in it. Changes through this mount show at once: they make the names that
/// they concern unknown, until the disk is asked again or the caller says what has become of them.
/// What the caller says answers questions for kTrusted, whether the directory was listed or not.
/// If several names of a directory are asked for, the directory is listed, and the listing answers
/// them all. The directories beside it are then listed at the first question, until several of them
/// in a row get no second one.
///
/// If the side with the disk watches a directory and tells of its changes, its listing goes on
/// answering for up to kLongestUse. What was told of is unknown; everything else counts as asked
/// for with the last answered question: all changes before it were told. So an answer is never
/// older than kTrusted, even if the line stands still. Some changes are not told, for example those
/// through names elsewhere (hard links that were made after the listing) or through mappings; a
/// subdirectory's attributes are told by a watch of its own, and come from its own listing.
///
/// Some disks take names that differ in case for the same. So names count as missing, and a change
/// leaves the other names known, only on a disk that was seen to tell such names apart.
///
/// All operations are callable from any thread.
class ListingCache {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kLongestUse{30};
  static constexpr std::chrono::seconds kTrusted{1};
  /// At most this many names of a directory are asked for one by one within kTrusted; of a large
  /// directory, one in kNamesOfLarge of its names. Until it is listed, its size shows about how
  /// many it has: one for each kBytesOfName bytes.
  static constexpr size_t kSingleQuestions = 2;
  static constexpr size_t kNamesOfLarge = 64;
  static constexpr size_t kBytesOfName = 32;
  /// A directory beside one of which several names were asked for is listed at the first question
  /// if it has fewer names than this, at the second if it has fewer than twice as many.
  static constexpr size_t kNamesOfGuess = 256;
  /// How many directories in a row may be listed at the first question and get no second one.
  static constexpr size_t kMostGuesses = 4;

  /// @param enabled  false: nothing is cached, every directory is listed in full, and every name
  ///                 asked for
  /// @param memory   the most that listings and names may take, in bytes
  /// @param trusted  for how long a listing answers questions for names
  ListingCache(RemoteFiles& files, bool enabled, size_t memory, Clock::duration trusted = kTrusted)
      : files_(files), enabled_(enabled), memory_(memory), trusted_(trusted) {}

  void List(const std::string& directory, RemoteFiles::Done<SharedListing> done);

  /// @param asked  when the disk was asked, if not for this question; then the answer may be kept
  ///               only until kTrusted after that
  using Shown = std::function<void(const Result<udisk_stat>&, std::optional<Clock::time_point>)>;
  struct Asked {
    bool must_ask = false;       ///< the disk has to be asked for this path
    int64_t directory_size = 0;  ///< st_size of its directory, if that is known
  };
  /// Gives a path's attributes; ENOENT when there is no such file. The caller must hold a pass of
  /// the gate.
  void GetAttributes(const std::string& path, const Asked& asked, const Shown& shown);
  /// Waits until no answer can lead to another request with an old path. To be called when a move
  /// has begun. Must not be called on the thread that delivers replies.
  void AwaitAnswers();

  /// Makes unknown what a change of `path` concerns. To be called before the change is sent, and
  /// after the module has made it, before a program hears of it. A change that a program is told of
  /// earlier needs one more call, before the program is told, while `path` cannot change.
  void NoteChange(const std::string& path, RemoteFiles::ChangeOf what);
  /// Notes what the disk showed at a path.
  void NoteShown(const std::string& path, const Result<udisk_stat>& result);
  /// Notes what is at `path` after a change of it through this mount.
  /// @param asked  when the attributes were asked for; that was after the change was sent
  void NoteChanged(const std::string& path, const udisk_stat& attributes, Clock::time_point asked);
  /// The same for what this mount has made. A directory is empty then, unless its attributes show
  /// that it was there before.
  /// @param mode_set  whether its mode was set afterwards
  void NoteMade(const std::string& path, const udisk_stat& attributes, Clock::time_point asked,
                bool mode_set = false);
  /// Asks for a directory's attributes, because the kernel does when the next of its names is to
  /// change. To be called when the request that changes a name in it was sent, while the gate is
  /// still held. Nothing waits for the answer but questions for the directory.
  void Refresh(const std::string& directory);
  /// Makes the next question for `path` go to the disk.
  void Doubt(const std::string& path);
  /// The side with the disk tells of something.
  void Take(const Notice& notice);
  /// Another disk has taken the place of the one that was listed.
  void ForgetDisk();

 private:
  /// For how long no listing replaces questions for the names of a directory whose listing failed,
  /// or could not be kept.
  static constexpr std::chrono::seconds kAfterFailure{30};
  static constexpr size_t kMostListings = 256;
  static constexpr size_t kMostAskings = 1024;
  static constexpr size_t kMostDevices = 64;
  static constexpr size_t kMostDoubted = 64;
  static constexpr size_t kMostChanges = 4096;  // of a question

  /// What is known of a name. Known without attributes: there is no such file.
  struct Name {
    bool is_known = false;
    std::optional<udisk_stat> attributes = {};
    Clock::time_point asked = {};
  };
  using Names = std::map<std::string, Name, std::less<>>;

  struct Directory {
    SharedListing listing = nullptr;     // null if none is known
    bool is_checkable = false;           // the listing
    bool is_watched = false;             // from before the listing was made
    Clock::time_point asked = {};        // for the listing
    Clock::time_point names_asked = {};  // when last seen to have no other names, if that is known
    Clock::time_point sifted = {};       // when those of `names` that are too old were dropped
    int64_t device = 0;
    Names names = {};                    // newer than the listing
    std::vector<uint32_t> by_name = {};  // indexes of the listing's entries; built when needed
    uint64_t last_use = 0;

    [[nodiscard]] size_t memory() const;
  };
  /// A listing under way.
  struct Question {
    std::string directory;
    Clock::time_point asked;
    Names changes = {};      // what the answer may not show
    bool is_void = false;    // a change may have made the whole answer wrong
    bool is_listed = false;  // a full listing is on its way
    bool is_watched = false;
    std::vector<std::function<void()>> waiting = {};
  };
  /// What waits for the answers to Refresh.
  struct Refreshing {
    size_t unanswered = 0;
    std::vector<std::function<void()>> waiting = {};
  };
  /// Names of a directory that were asked for one by one.
  struct Asking {
    Clock::time_point since = {};
    // When the directory was last listed because of these. In the future if that failed, or if the
    // listing could not be kept, so that it is not tried again soon.
    Clock::time_point listed = {};
    std::string last = {};  // the name
    size_t count = 0;
    size_t entries = 0;     // of the directory: what is known or was guessed
    bool is_guess = false;  // listed at the first question, and no other name was asked for since
    // When several names were last asked for in one of its subdirectories, and how many of them
    // were listed at the first question since.
    Clock::time_point wanted_below = {};
    size_t guesses_below = 0;
  };

  void ListInFull(uint64_t question, const std::string& directory,
                  RemoteFiles::Done<SharedListing> done);
  SharedListing Find(const std::string& directory);
  uint64_t NoteQuestion(const std::string& directory);
  Question EndQuestion(uint64_t question);
  bool Confirm(uint64_t question, const SharedListing& listing);
  SharedListing Keep(uint64_t question, Listing&& answer);
  void Answer(const std::vector<std::function<void()>>& waiting);
  /// Whether more is known of a directory than single names.
  static bool IsListed(const Directory& known) {
    return known.listing != nullptr || known.names_asked != Clock::time_point();
  }
  static const Listing::Entry* EntryOf(Directory& known, std::string_view name);
  void Ask(const std::string& path, const Shown& shown);
  [[nodiscard]] static bool IsWatched(const Directory& known, Clock::time_point now);
  std::optional<Name> Look(const std::string& path);
  std::optional<Name> LookLocked(const std::string& path);
  std::optional<Name> LookLocked(const std::string& directory, std::string_view name);
  bool WantsListingLocked(const std::string& directory, std::string_view name,
                          int64_t directory_size);
  void NoteSeveralLocked(const std::string& directory);
  void CheckGuessLocked(const std::string& directory, std::string_view name);
  void SetNameLocked(const std::string& directory, std::string_view name, const Name& value);
  void SetShownLocked(const std::string& path, const udisk_stat& attributes,
                      Clock::time_point asked);
  void ForgetListing(Directory& known, bool keeps_names);
  void ForgetIfUnknown(const std::string& path);
  bool TellsCaseApartLocked(const Directory& known) const;
  void ProbeCase(const std::string& directory, std::string_view name, const udisk_stat& known);
  void MakeRoomLocked();

  RemoteFiles& files_;
  const bool enabled_;
  const size_t memory_;
  const Clock::duration trusted_;
  std::mutex mutex_;
  std::map<std::string, Directory> kept_;  // by path
  uint64_t last_use_ = 0;
  std::map<uint64_t, Question> questions_;
  uint64_t last_question_ = 0;
  std::map<std::string, Refreshing> refreshings_;  // by directory
  std::map<std::string, Asking> askings_;          // by directory
  std::set<std::string> doubted_;                  // paths
  std::map<int64_t, bool> tells_case_apart_;  // by device; false also while it is being found out
  size_t waiting_ = 0;                        // for answers, or being answered
  std::condition_variable answered_;
};

}  // namespace cpd::host
