# Makes the empty repositories and folders that Apache serves. If root runs this, the user of Apache's processes gets them.
set -e
mkdir files files/files git
git init --quiet --bare git/project.git
git --git-dir git/project.git config http.receivepack true
svnadmin create svn
if [ "$(id -u)" -eq 0 ]; then chown -R www-data:www-data . ; fi
