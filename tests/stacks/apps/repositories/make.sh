# Makes what Apache serves, empty, and gives it to the user as whom it works when root starts it.
set -e
mkdir files files/files git
git init --quiet --bare git/project.git
git --git-dir git/project.git config http.receivepack true
svnadmin create svn
if [ "$(id -u)" -eq 0 ]; then chown -R www-data:www-data . ; fi
